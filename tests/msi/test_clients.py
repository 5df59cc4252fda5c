"""Whether a product that carries the agent installs it where another one has been."""

from installer import companion, package, session

PROCEED = 0
SKIP = session.NO_MORE_ITEMS


def answer(result, runs_of) -> int | None:
    """What CheckForClients returned in a session."""
    assert result.exit_code == 0, result.report()
    (run,) = [run for run in runs_of(result) if run.name == "CheckForClients"]
    assert (run.verdict, run.meaning) == (1, "succeeded"), result.report()
    return run.result


def test_an_agent_that_is_not_older_is_not_installed_again(
    clean_machine, second_package, runs_of, watching
):
    qorta = r"HKLM\Software\Qorta Technologies"
    key = rf"{qorta}\Install\UPA"
    status = ("/v", "Other_TeloStatus", "/t", "REG_DWORD", "/d", "2", "/f")
    version = package.project_identity().version
    clean_machine.prefix.run("reg.exe", "add", companion.STATUS_KEY, *status)
    try:
        for installed, expected in (("0.9", PROCEED), (version, SKIP), ("99.0", SKIP)):
            clean_machine.prefix.run(
                "reg.exe", "add", key, "/v", "ProductVersion", "/d", installed, "/f"
            )
            result = clean_machine.install(second_package, environment=watching)
            assert answer(result, runs_of) == expected, installed
    finally:
        clean_machine.prefix.run("reg.exe", "delete", qorta, "/f")
