"""Two products that carry the agent: who of them installs and removes it."""

from installer import companion, package, session
from installer.machine import Area, Kind

PROCEED = 0
SKIP = session.NO_MORE_ITEMS


def answer(result, runs_of) -> int | None:
    """What CheckForClients returned in a session."""
    assert result.exit_code == 0, result.report()
    (run,) = [run for run in runs_of(result) if run.name == "CheckForClients"]
    assert (run.verdict, run.meaning) == (1, "succeeded"), result.report()
    return run.result


def registered(clean_machine) -> dict[str, str]:
    """What the registry tells of the agent's clients, by the names of the values."""
    return {
        change.name.partition(" : ")[2]: change.after
        for change in clean_machine.changes().changes
        if change.area is Area.REGISTRY
        and change.kind is Kind.ADDED
        and r"\Software\Telo : " in change.name
    }


def known(last: str, **status: int) -> dict[str, str]:
    values = {f"{client}_TeloStatus": f"dword:{number:08}" for client, number in status.items()}
    return values | {"TeloClient": f'"{last}"'}


def test_the_second_client_skips_the_agent_and_the_last_one_takes_it_away(
    clean_machine, companion_package, second_package, runs_of, watching
):
    def install(source, *properties) -> int | None:
        result = clean_machine.install(source, *properties, environment=watching)
        return answer(result, runs_of)

    def remove(source) -> int | None:
        return answer(clean_machine.remove(source, environment=watching), runs_of)

    assert install(companion_package, "LAUNCHED_FROM_MIM=1") == PROCEED
    assert registered(clean_machine) == known("Companion", Companion=1)
    assert install(second_package) == SKIP
    assert registered(clean_machine) == known("SecondClient", Companion=1, SecondClient=1)
    # The engine here goes on behind 259: the product is there.
    assert clean_machine.prefix.host_path(rf"{companion.SECOND_FOLDER}\readme.txt").exists()
    assert remove(second_package) == SKIP
    assert registered(clean_machine) == known("SecondClient", Companion=1, SecondClient=2)
    assert install(companion_package, "REINSTALL=ALL", "REINSTALLMODE=amus") == PROCEED
    assert registered(clean_machine) == known("Companion", Companion=1, SecondClient=2)
    assert remove(companion_package) == PROCEED
    assert registered(clean_machine) == known("Companion", Companion=2, SecondClient=2)


def test_a_removal_counts_for_the_client_that_ran_last(
    clean_machine, companion_package, second_package, runs_of, watching
):
    clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    clean_machine.install(second_package)
    result = clean_machine.remove(companion_package, environment=watching)
    assert answer(result, runs_of) == SKIP
    assert registered(clean_machine) == known("SecondClient", Companion=1, SecondClient=2)


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
