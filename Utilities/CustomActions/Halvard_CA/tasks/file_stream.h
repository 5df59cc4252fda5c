#pragma once

#include <windows.h>
#include <objidl.h>

namespace halvard {

/// The last Win32 error of this thread as an HRESULT. A code of 0, and one that is negative
/// already, passes unchanged, so the result of a failed call need not be a failure.
HRESULT LastErrorResult() noexcept;

/// A COM stream over one open file, for what reads and writes through IStream: XmlLite above all.
///
/// Owns its handle and lives on the heap, born with one reference; the last Release closes the
/// handle, unless that is INVALID_HANDLE_VALUE, and frees the object. Reads, writes, moves and
/// tells the size; everything else is E_NOTIMPL. A failed file call gives its Win32 code as an
/// HRESULT. References may be counted from any thread, all else is as safe as the handle. Throws
/// nothing.
class FileStream final : public IStream {
public:
    explicit FileStream(HANDLE file) noexcept : file_(file) {}
    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;

    /// Knows IUnknown, ISequentialStream and IStream; E_INVALIDARG without a place for the result.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID interfaceId, void** result) noexcept override;
    ULONG STDMETHODCALLTYPE AddRef() noexcept override;
    ULONG STDMETHODCALLTYPE Release() noexcept override;

    /// S_OK at the end of the file too, with fewer bytes than asked for. `bytesRead` may be null.
    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* bytesRead) noexcept override;
    /// `bytesWritten` may be null.
    HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size,
                                    ULONG* bytesWritten) noexcept override;

    /// STG_E_INVALIDFUNCTION for an origin that IStream does not name. `newPosition` may be null.
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                   ULARGE_INTEGER* newPosition) noexcept override;
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER newSize) noexcept override;
    HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size,
                                     ULARGE_INTEGER* bytesRead,
                                     ULARGE_INTEGER* bytesWritten) noexcept override;
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) noexcept override;
    HRESULT STDMETHODCALLTYPE Revert() noexcept override;
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                         DWORD type) noexcept override;
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                           DWORD type) noexcept override;
    /// Fills in the size and leaves every other member as it is, the name too.
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* status, DWORD flags) noexcept override;
    HRESULT STDMETHODCALLTYPE Clone(IStream** copy) noexcept override;

private:
    ~FileStream();

    HANDLE file_;
    volatile LONG references_ = 1;
};

} // namespace halvard
