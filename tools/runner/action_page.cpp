#include "action_page.h"

#include "json.h"
#include "text.h"

#include <algorithm>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kOutsideOfTheTable = L"not in the table of actions";

std::wstring Purpose(const std::wstring& text) {
    std::wstring lines;
    for (const std::wstring& line : Wrapped(text, 76)) {
        lines += L"    " + line + L"\n";
    }
    return lines;
}

std::wstring KeyText(const DataKey& key) {
    return key.name + L"=" + (key.needed ? L" (needed)" : L" (may be left out)");
}

std::wstring DataText(const ActionFacts& facts) {
    std::vector<std::wstring> keys;
    for (const DataKey& key : facts.data) {
        keys.push_back(KeyText(key));
    }
    return keys.empty() ? facts.wholeData : Joined(keys, L", ");
}

std::wstring OrNone(const std::wstring& text, const wchar_t* none) {
    return text.empty() ? none : text;
}

JsonMembers FactMembers(const ActionFacts& facts) {
    const auto key = [](const DataKey& each) {
        return JsonObject({{L"key", JsonString(each.name)}, {L"needed", JsonBool(each.needed)}});
    };
    const auto result = [](const ActionResult& each) {
        return JsonObject({{L"value", each.value == L"other" ? L"null" : each.value},
                           {L"note", JsonStringOrNull(each.note)},
                           {L"means", JsonString(each.means)}});
    };
    return {
        {L"name", JsonString(facts.name)},
        {L"subsystem", JsonString(facts.subsystem)},
        {L"does", JsonString(facts.does)},
        {L"execution",
         JsonString(facts.execution == Execution::Deferred ? L"deferred" : L"immediate")},
        {L"impersonated", JsonBool(facts.impersonated)},
        {L"checked", JsonBool(facts.checked)},
        {L"why", JsonString(facts.why)},
        {L"schedule", JsonString(facts.schedule)},
        {L"data", JsonArray(facts.data, key)},
        {L"whole_data", JsonStringOrNull(facts.wholeData)},
        {L"properties", JsonArray(facts.properties, JsonString)},
        {L"registry", JsonArray(facts.registry, JsonString)},
        {L"results", JsonArray(facts.results, result)},
        {L"exceptions", JsonArray(facts.exceptions, JsonString)},
        {L"throws", JsonStringOrNull(facts.throws)},
    };
}

} // namespace

const ActionFacts* FindFacts(const std::wstring& action) {
    const std::vector<ActionFacts>& table = ActionTable();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const ActionFacts& facts) { return facts.name == action; });
    return found == table.end() ? nullptr : &*found;
}

std::vector<std::wstring> TableNames() {
    std::vector<std::wstring> names;
    for (const ActionFacts& facts : ActionTable()) {
        names.push_back(facts.name);
    }
    return names;
}

std::wstring DeclarationText(const ActionFacts& facts) {
    const std::wstring result = facts.checked ? L"Return=\"check\"" : L"Return=\"ignore\"";
    if (facts.execution == Execution::Immediate) {
        return L"immediate, " + result;
    }
    return L"deferred, Impersonate=" +
           std::wstring(facts.impersonated ? L"\"yes\", " : L"\"no\", ") + result;
}

std::wstring ActionPage(const ActionFacts& facts) {
    std::wstring page = facts.name + L"\n" + Purpose(facts.does) + L"\n";
    page += Described(L"declare", DeclarationText(facts));
    page += Described(L"because", facts.why);
    page += Described(L"schedule", facts.schedule);
    page += Described(L"data", OrNone(DataText(facts), L"none"));
    page += Described(L"properties", OrNone(Joined(facts.properties, L", "), L"none"));
    std::wstring label = L"registry";
    for (const std::wstring& key : facts.registry) {
        page += Described(label, key);
        label.clear();
    }
    label = L"results";
    for (const ActionResult& result : facts.results) {
        page += Described(label, result.value + L": " + result.means);
        label.clear();
    }
    return page + Described(L"throws", OrNone(facts.throws, L"nothing."));
}

std::wstring ActionPageJson(const ActionFacts& facts) {
    JsonMembers members = FactMembers(facts);
    members.emplace_back(L"exit_code", L"0");
    return JsonObject(members) + L"\n";
}

std::wstring ListLines(const std::vector<std::wstring>& actions) {
    std::wstring lines;
    for (const std::wstring& action : actions) {
        const ActionFacts* const facts = FindFacts(action);
        lines += action + L"\n";
        lines += facts == nullptr ? Purpose(kOutsideOfTheTable)
                                  : Purpose(DeclarationText(*facts)) + Purpose(facts->does);
    }
    return lines;
}

std::wstring ListJson(const std::wstring& library, const std::vector<std::wstring>& actions) {
    const auto row = [](const std::wstring& action) {
        const ActionFacts* const facts = FindFacts(action);
        return JsonObject(facts == nullptr ? JsonMembers{{L"name", JsonString(action)}}
                                           : FactMembers(*facts));
    };
    return JsonObject({{L"dll", JsonString(library)},
                       {L"actions", JsonArray(actions, row)},
                       {L"exit_code", L"0"}}) +
           L"\n";
}

} // namespace halvard_runner
