#include "agent/agent_text.h"

#include <algorithm>

namespace halvard {

std::wstring AgentFolderIn(const std::wstring& programFiles) {
    return programFiles + L"\\Zenvo\\Usage Profile Agent";
}

std::wstring AgentDataFolderIn(const std::wstring& commonData) {
    return commonData + L"\\Zenvo\\UPA";
}

std::optional<std::wstring> AgentFilePath(const std::wstring& agentFolder,
                                          const std::wstring& fileName) {
    std::wstring path = agentFolder + L"\\" + fileName;
    if (path.size() >= kAgentFileLimit) {
        return std::nullopt;
    }
    return path;
}

std::wstring WithoutBraces(std::wstring text) {
    text.erase(
        std::remove_if(text.begin(), text.end(),
                       [](wchar_t character) { return character == L'{' || character == L'}'; }),
        text.end());
    return text;
}

} // namespace halvard
