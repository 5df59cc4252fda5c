#include "tasks/file_stream.h"

namespace halvard {

namespace {

HRESULT ResultOf(BOOL succeeded) noexcept {
    return succeeded != FALSE ? S_OK : LastErrorResult();
}

} // namespace

HRESULT LastErrorResult() noexcept {
    const DWORD code = GetLastError();
    return HRESULT_FROM_WIN32(code);
}

FileStream::~FileStream() {
    if (file_ != INVALID_HANDLE_VALUE) {
        CloseHandle(file_);
    }
}

HRESULT FileStream::QueryInterface(REFIID interfaceId, void** result) noexcept {
    if (result == nullptr) {
        return E_INVALIDARG;
    }
    *result = nullptr;
    if (interfaceId != __uuidof(IUnknown) && interfaceId != __uuidof(IStream) &&
        interfaceId != __uuidof(ISequentialStream)) {
        return E_NOINTERFACE;
    }
    AddRef();
    *result = static_cast<IStream*>(this);
    return S_OK;
}

ULONG FileStream::AddRef() noexcept {
    return static_cast<ULONG>(InterlockedIncrement(&references_));
}

ULONG FileStream::Release() noexcept {
    const LONG left = InterlockedDecrement(&references_);
    if (left == 0) {
        delete this;
    }
    return static_cast<ULONG>(left);
}

HRESULT FileStream::Read(void* buffer, ULONG size, ULONG* bytesRead) noexcept {
    ULONG unasked = 0;
    return ResultOf(
        ReadFile(file_, buffer, size, bytesRead != nullptr ? bytesRead : &unasked, nullptr));
}

HRESULT FileStream::Write(const void* buffer, ULONG size, ULONG* bytesWritten) noexcept {
    ULONG unasked = 0;
    return ResultOf(
        WriteFile(file_, buffer, size, bytesWritten != nullptr ? bytesWritten : &unasked, nullptr));
}

HRESULT FileStream::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) noexcept {
    DWORD method = FILE_BEGIN;
    switch (origin) {
    case STREAM_SEEK_SET:
        break;
    case STREAM_SEEK_CUR:
        method = FILE_CURRENT;
        break;
    case STREAM_SEEK_END:
        method = FILE_END;
        break;
    default:
        return STG_E_INVALIDFUNCTION;
    }
    return ResultOf(
        SetFilePointerEx(file_, move, reinterpret_cast<LARGE_INTEGER*>(newPosition), method));
}

HRESULT FileStream::SetSize(ULARGE_INTEGER /*newSize*/) noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::CopyTo(IStream* /*target*/, ULARGE_INTEGER /*size*/,
                           ULARGE_INTEGER* /*bytesRead*/,
                           ULARGE_INTEGER* /*bytesWritten*/) noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::Commit(DWORD /*flags*/) noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::Revert() noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::LockRegion(ULARGE_INTEGER /*offset*/, ULARGE_INTEGER /*size*/,
                               DWORD /*type*/) noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::UnlockRegion(ULARGE_INTEGER /*offset*/, ULARGE_INTEGER /*size*/,
                                 DWORD /*type*/) noexcept {
    return E_NOTIMPL;
}

HRESULT FileStream::Stat(STATSTG* status, DWORD /*flags*/) noexcept {
    // Through a local: a failed call must not touch the structure.
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file_, &size) == FALSE) {
        return LastErrorResult();
    }
    status->cbSize.QuadPart = static_cast<ULONGLONG>(size.QuadPart);
    return S_OK;
}

HRESULT FileStream::Clone(IStream** /*copy*/) noexcept {
    return E_NOTIMPL;
}

} // namespace halvard
