#include "debugger_output.h"

#include <windows.h>

#include <stdexcept>
#include <thread>

namespace halvard_tests {

namespace {

// The channel is public: a mapping of 4096 bytes (the sender's process, then the text) and an event
// for each direction.
constexpr DWORD kChannelBytes = 4096;

class Channel {
public:
    Channel()
        : mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                      kChannelBytes, L"DBWIN_BUFFER")) {
        if (GetLastError() == ERROR_ALREADY_EXISTS) {
            CloseHandle(mapping_);
            throw std::runtime_error("somebody listens to the debugger's channel already");
        }
        view_ =
            static_cast<const char*>(MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, kChannelBytes));
        free_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
        filled_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
        stopped_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        if (view_ == nullptr || free_ == nullptr || filled_ == nullptr || stopped_ == nullptr) {
            throw std::runtime_error("the debugger's channel cannot be made");
        }
        receiver_ = std::thread([this] { Receive(); });
    }
    ~Channel() {
        Stop();
        UnmapViewOfFile(view_);
        for (const HANDLE handle : {mapping_, free_, filled_, stopped_}) {
            CloseHandle(handle);
        }
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void Stop() {
        if (receiver_.joinable()) {
            SetEvent(stopped_);
            receiver_.join();
        }
    }

    const std::vector<std::string>& Texts() const { return texts_; }

private:
    void Receive() {
        const HANDLE handles[] = {filled_, stopped_};
        SetEvent(free_);
        // The first of the two counts when both are set: nothing that was sent is left behind.
        while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0) {
            if (*reinterpret_cast<const DWORD*>(view_) == GetCurrentProcessId()) {
                texts_.emplace_back(view_ + sizeof(DWORD));
            }
            SetEvent(free_);
        }
    }

    HANDLE mapping_;
    const char* view_ = nullptr;
    HANDLE free_ = nullptr;
    HANDLE filled_ = nullptr;
    HANDLE stopped_ = nullptr;
    std::thread receiver_;
    std::vector<std::string> texts_;
};

} // namespace

std::vector<std::string> DebuggerOutputOf(const std::function<void()>& action) {
    Channel channel;
    action();
    channel.Stop();
    return channel.Texts();
}

} // namespace halvard_tests
