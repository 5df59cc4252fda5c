"""Registry actions, install proxy and context menu in the sample package."""

import shutil

import pytest

from installer import companion
from installer.machine import Area, Kind

ANALYTICS = r"HKLM\Software\Zenvo\ZenvoAnalytics : AnalyticsAccepted"


def registry(clean_machine) -> dict[str, str]:
    """The contents of what the registry has more than before, by name."""
    changes = clean_machine.changes().changes
    return {
        change.name: change.after
        for change in changes
        if change.area is Area.REGISTRY and change.kind is Kind.ADDED
    }


@pytest.fixture
def installed(clean_machine, companion_package):
    result = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    assert result.exit_code == 0, result.report()
    return result


def test_installation_writes_consent_and_markers(clean_machine, installed, runs_of):
    written = registry(clean_machine)
    assert written[ANALYTICS] == '"true"', installed.report()
    assert written[r"HKLM\Software\Zenvo\Install : Telo"] == "dword:00000000"
    assert written[r"HKLM\Software\ZenvoDVR : ZenvoDVR_Tracked"] == "dword:00000001"
    (proxy,) = [run for run in runs_of(installed) if run.name == "LaunchInstallProxyPV"]
    assert proxy.lines == companion.proxy_lines(), installed.report()
    assert proxy.data == f"{companion.FOLDER}\\"


@pytest.mark.parametrize("value, consent", [("yes", '"false"'), ("no", '"true"')])
def test_the_user_can_refuse_analytics(clean_machine, companion_package, value, consent):
    result = clean_machine.install(
        companion_package, "LAUNCHED_FROM_MIM=1", f"DISABLEANALYTICS={value}"
    )
    assert registry(clean_machine)[ANALYTICS] == consent, result.report()


def test_branding_keeps_the_file_that_its_key_lists(clean_machine, companion_package, installed):
    brand = clean_machine.prefix.host_path(rf"{companion.FOLDER}\Brand")
    companion.write_as_the_applications_do(clean_machine.prefix)
    (brand / "licence.txt").write_text("kept")
    result = clean_machine.remove(companion_package)
    kept = sorted(path.name for path in brand.iterdir())
    shutil.rmtree(brand.parent.parent)
    assert kept == ["licence.txt"], result.report()
