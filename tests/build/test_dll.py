"""The DLL as it is shipped: names, imports, flags and resource."""

import re
import subprocess

import pytest

from installer import paths

LIBRARY_SOURCES = paths.ROOT / "Utilities/CustomActions/Halvard_CA"
WINDOWS_LIBRARIES = {
    "advapi32.dll",
    "kernel32.dll",
    "msi.dll",
    "msvcrt.dll",
    "ntdll.dll",
    "ole32.dll",
    "oleaut32.dll",
    "shell32.dll",
    "shlwapi.dll",
    "user32.dll",
}
IMAGE_BASE = 0x180000000
# Loaded with the first call: few actions need them, and every action would wait for them.
DELAYED_LIBRARIES = {"setupapi.dll", "xmllite.dll"}


# Of the DLL, and what sections at whole pages take of it, both in bytes.
LIMIT = 710_000
WHOLE_PAGES = 5 * 4096


@pytest.fixture(scope="module")
def headers() -> str:
    command = ["x86_64-w64-mingw32-objdump", "-x", str(paths.LIBRARY)]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def exported() -> list[str]:
    # objdump shows the table of exports in another form with every few releases.
    command = ["llvm-readobj", "--coff-exports", str(paths.LIBRARY)]
    listed = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return re.findall(r"^  Name: (\S+)$", listed, re.MULTILINE)


def listed_exports() -> list[str]:
    text = (LIBRARY_SOURCES / "Halvard_CA.def").read_text()
    lines = text.split("EXPORTS")[1].splitlines()
    return [line.strip() for line in lines if line.strip() and not line.strip().startswith(";")]


def test_exports_are_those_of_the_module_definition():
    assert sorted(exported()) == sorted(listed_exports())
    assert sorted(listed_exports()) == [
        "AfterInstallUPA",
        "BlockLaunch",
        "CheckForClients",
        "CreateBenchMarkRunOnceSchTask",
        "CreateDVRLogonSchTask",
        "CreateLogonSchTask",
        "CreateTriggerlessElevatedScheduleTask",
        "DelInstallProxyKey",
        "DeleteAnalyticsKey",
        "DeleteDMFTDirectory",
        "DeleteOptiqCameraGUID",
        "DeletePVFolder",
        "DeletePVINSTALLDIRFolder",
        "DeletePVSlimINSTALLDIRFolder",
        "DeleteQortaKey",
        "DeleteSchedTaskonBranding",
        "DeleteServiceIfBinaryIsInDirectory",
        "DeleteXVRFolder",
        "DeleteandRetainValues",
        "DisabelAnalyticsKey",
        "EnableAnalyticsKey",
        "InstallContextMenuMSIX",
        "LaunchInstallProxyPV",
        "LaunchPV",
        "LaunchedFromMIM",
        "PostInstallUPA",
        "PreInstallUPA",
        "RemoveBenchMarkRunOnceSchedularTask",
        "RemoveDVRSchedularTask",
        "RemovePVSchedularTask",
        "SetDCLogFileRegistry",
        "SetPermissionsRegisterDLL",
        "ShutDownDVR",
        "ShutDownPivotConsole",
        "TerminateDVRApp",
        "TerminatePivotApp",
        "TrackDVRAnalytics",
        "UnregisterDLL",
    ]


def test_every_export_is_declared_with_a_comment_in_a_header():
    declared = {}
    for header in LIBRARY_SOURCES.rglob("*.h"):
        pattern = r"((?:^///.*\n)+)^UINT __stdcall (\w+)\(MSIHANDLE session\);"
        for comment, name in re.findall(pattern, header.read_text(), re.MULTILINE):
            declared[name] = comment
    assert sorted(declared) == sorted(listed_exports())
    for name, comment in declared.items():
        for wanted in ("(Immediate|Deferred) action", "Inputs?:", "Results:", "Throws"):
            assert re.search(wanted, comment), f"{name}: its comment lacks {wanted}"


def test_only_libraries_of_windows_are_imported(headers):
    imported = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers)}
    assert imported - WINDOWS_LIBRARIES == set()


def test_libraries_for_few_actions_are_loaded_with_the_first_call(headers):
    imported = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers)}
    assert imported & DELAYED_LIBRARIES == set()
    content = paths.LIBRARY.read_bytes().lower()
    assert [name for name in DELAYED_LIBRARIES if f"{name}\0".encode() not in content] == []


def test_hardening_flags_and_base_address(headers):
    characteristics = int(re.search(r"DllCharacteristics\s+([0-9a-f]+)", headers)[1], 16)
    flags = {"high entropy": 0x20, "dynamic base": 0x40, "no execution of data": 0x100}
    assert [name for name, bit in flags.items() if not characteristics & bit] == []
    assert re.search(r"ImageBase\s+0*180000000\b", headers)
    # Without relocations a dynamic base would be an empty promise.
    assert re.search(r"^\s*\d+ \.reloc\s", headers, re.MULTILINE)


def test_the_sections_stand_at_whole_pages_of_the_file_where_there_is_room(headers):
    alignment = int(re.search(r"^FileAlignment\s+([0-9a-f]+)$", headers, re.MULTILINE)[1], 16)
    has_room = paths.LIBRARY.stat().st_size + WHOLE_PAGES <= LIMIT
    assert alignment == 0x1000 or not has_room


def test_no_time_stamp(headers):
    assert "Time/Date		Thu Jan  1 00:00:00 1970" in headers


def test_debug_information_lies_beside_the_dll(headers):
    assert not re.search(r"^\s*\d+ \.debug_", headers, re.MULTILINE)
    assert re.search(r"^\s*\d+ \.gnu_debuglink\s", headers, re.MULTILINE)
    beside = paths.LIBRARY.with_name("Halvard_CA.dll.debug")
    command = ["x86_64-w64-mingw32-objdump", "-h", str(beside)]
    sections = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    assert ".debug_info" in sections


def test_the_library_is_no_larger_than_it_may_be():
    assert paths.LIBRARY.stat().st_size <= LIMIT


def test_the_build_leaves_one_dll_of_this_name():
    assert list(paths.PROGRAMS.rglob("Halvard_CA.dll")) == [paths.LIBRARY]


@pytest.mark.parametrize("file", [paths.LIBRARY, paths.RUNNER], ids=lambda file: file.name)
def test_version_resource_tells_what_the_project_says(file):
    content = file.read_bytes()
    lists = (paths.ROOT / "CMakeLists.txt").read_text()
    expected = {
        "CompanyName": re.search(r'HALVARD_COMPANY "(.*)"', lists)[1],
        "FileDescription": (
            re.search(r'DESCRIPTION "(.*)"', lists)[1]
            if file == paths.LIBRARY
            else "Tries actions of Halvard_CA, checks packages and asks machines"
        ),
        "FileVersion": re.search(r"VERSION (\d+\.\d+\.\d+)\n", lists)[1],
        "LegalCopyright": "Copyright (C) " + re.search(r'HALVARD_COMPANY "(.*)"', lists)[1],
        "OriginalFilename": file.name,
    }
    for key, value in expected.items():
        start = content.find(f"{key}\0".encode("utf-16-le"))
        assert start >= 0, key
        # The value stands behind its key, at the next multiple of four bytes.
        text = content[start + 2 * (len(key) + 1) :][: 2 * len(value) + 4].decode("utf-16-le")
        assert text.lstrip("\0")[: len(value) + 1] == value + "\0"


def test_each_function_of_the_standard_library_can_be_unwound():
    """An exception passes through it: without its data the registers of its callers are lost."""
    archive = subprocess.run(
        ["x86_64-w64-mingw32-g++-posix", "-print-file-name=libstdc++.a"],
        capture_output=True, text=True, check=True,
    ).stdout.strip()
    listed = subprocess.run(
        ["x86_64-w64-mingw32-objdump", "-h", archive], capture_output=True, text=True, check=True
    ).stdout
    with_data = set(re.findall(r"\s\.pdata\$(\S+)", listed))
    unwound = subprocess.run(
        ["llvm-readobj", "--unwind", str(paths.LIBRARY)], capture_output=True, text=True, check=True
    ).stdout
    starts = {int(at, 16) - IMAGE_BASE for at in re.findall(r"StartAddress: .*\(0x(\w+)\)", unwound)}
    linked = re.findall(
        r"^(\w{8}) (\w{8}) +\d+ +\S+\.o:\(\.text\$(\S+)\)$",
        paths.LIBRARY.with_name(paths.LIBRARY.name + ".map").read_text(), re.MULTILINE,
    )
    functions = [(int(at, 16), name) for at, size, name in linked if int(size, 16) and name in with_data]
    assert len(functions) > 300
    assert [name for at, name in functions if at not in starts] == []


def test_a_second_build_has_nothing_to_do():
    """What runs beside a build, and every word of the script builds, works with the same file."""
    for command in (
        ["cmake", "--preset", "mingw-release"],
        ["cmake", "--build", "--preset", "mingw-release", "--", "-n"],
    ):
        done = subprocess.run(command, cwd=paths.ROOT, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout == "ninja: no work to do.\n"
