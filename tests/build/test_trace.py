"""The hooks of a trace: what the library imports is seen by them, or changes nothing but its own process."""

import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import sweep  # noqa: E402
from installer import paths  # noqa: E402

SOURCES = sorted((paths.ROOT / "tools/runner/trace").glob("*.cpp"))
ROW = re.compile(r'\{"(\w+)",')
# What need not be seen, by the reason: nothing else than this process and its memory is changed. Some
# are imported as one of the compilers has it.
HARMLESS = {
    "asks": """
        GetCurrentProcess GetCurrentProcessId GetCurrentThread GetCurrentThreadId
        GetFileInformationByHandle GetFileInformationByHandleEx GetFileSizeEx
        GetFullPathNameW GetHandleInformation GetLastError GetModuleHandleA GetModuleHandleW
        GetNativeSystemInfo GetProcessAffinityMask GetSecurityInfo GetSystemInfo
        GetSystemTimeAsFileTime GetTempPathW GetThreadContext GetThreadPriority GetTickCount
        GetTickCount64 GetWindowsDirectoryW IsDBCSLeadByteEx IsDebuggerPresent
        NtQueryInformationFile OpenProcess PeekNamedPipe QueryPerformanceCounter
        QueryPerformanceFrequency RegQueryInfoKeyW RegisterEventSourceW RtlGetVersion SHGetFolderLocation SHGetMalloc SHGetPathFromIDListW
        SetupDiEnumDeviceInfo SetupDiGetClassDevsW SetupDiGetDeviceRegistryPropertyW
        VirtualQuery
    """,
    "changes this process, or memory": """
        AddVectoredExceptionHandler AllocateAndInitializeSid CoCreateGuid CoTaskMemFree
        CoUninitialize CompareStringOrdinal CreateEventA CreateSemaphoreA
        CreateXmlReaderInputWithEncodingName CreateXmlWriterOutputWithEncodingName
        DeleteCriticalSection DuplicateHandle EnterCriticalSection FormatMessageA
        FreeLibrary InitializeCriticalSection LeaveCriticalSection LoadLibraryA LoadLibraryW
        LocalAlloc LocalFree MsiCloseHandle MsiCreateRecord MsiRecordSetStringW
        MultiByteToWideChar RaiseException RaiseFailFastException ReleaseSemaphore
        RemoveVectoredExceptionHandler ResetEvent ResumeThread RtlCaptureContext
        RtlLookupFunctionEntry RtlNtStatusToDosError RtlUnwindEx RtlVirtualUnwind
        SetEntriesInAclW SetEvent SetFilePointerEx SetHandleInformation SetLastError
        SetProcessAffinityMask SetThreadContext SetThreadPriority Sleep StringFromCLSID
        SuspendThread SysAllocString SysFreeString TlsAlloc TlsGetValue TlsSetValue
        TryEnterCriticalSection VirtualProtect WaitForMultipleObjects WideCharToMultiByte
        wsprintfW wvsprintfW
    """,
    "of the C run-time, with memory and texts": """
        __C_specific_handler ___lc_codepage_func ___mb_cur_max_func __iob_func _amsg_exit
        _beginthreadex _endthreadex _errno _initterm _localtime64 _localtime64_s _lock _mktime64 _setjmp
        _strdup _time64 _ultoa _unlock _vscprintf _vsnprintf _wcsicmp _wtof abort calloc exit
        free getenv iswctype
        localeconv longjmp malloc memchr memcmp memcpy memmove memset realloc setlocale
        signal strchr strcmp strcoll strerror strftime strlen strncmp strtoul strxfrm towlower towupper
        wcscmp wcscoll wcsftime wcslen wcsxfrm
    """,
    # The library opens no file by the C run-time.
    "of the C run-time, with the streams and the files that others have opened": """
        _close _read fprintf fputc fputs fwrite printf vfprintf
    """,
}


def hooked() -> set[str]:
    return {name for file in SOURCES for name in ROW.findall(file.read_text())}


def harmless() -> list[str]:
    return [name for names in HARMLESS.values() for name in names.split()]


def test_every_import_is_hooked_or_changes_nothing_else_than_its_process():
    imported = set(sweep.import_names(paths.LIBRARY))
    assert {"RegDeleteTreeW", "SetFileInformationByHandle", "CreateXmlReader"} <= imported
    assert imported - hooked() - set(harmless()) == set()


def test_what_is_hooked_is_not_called_harmless():
    names = harmless()
    assert len(names) == len(set(names))
    assert set(names) & hooked() == set()
