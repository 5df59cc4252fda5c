#include "runtime/custom_action_data.h"

#include <gtest/gtest.h>

#include <stdexcept>

using halvard::GetDataValue;
using halvard::GetDataValueOrEmpty;

TEST(GetDataValue, PicksEachItem) {
    const std::wstring data = L"InstallDir=C:\\X;DLLName=a.dll";
    EXPECT_EQ(GetDataValue(data, L"DLLName="), L"a.dll");
    EXPECT_EQ(GetDataValue(data, L"InstallDir="), L"C:\\X");
}

TEST(GetDataValue, ValueRunsToTheNextSemicolonOrToTheEnd) {
    EXPECT_EQ(GetDataValue(L"Key=a b=c;Other=d", L"Key="), L"a b=c");
    EXPECT_EQ(GetDataValue(L"Key=to the end", L"Key="), L"to the end");
}

TEST(GetDataValue, EmptyValues) {
    EXPECT_EQ(GetDataValue(L"Key=;Other=d", L"Key="), L"");
    EXPECT_EQ(GetDataValue(L"Other=d;Key=", L"Key="), L"");
    EXPECT_EQ(GetDataValue(L"Key=;;", L"Key="), L"");
}

TEST(GetDataValue, TheFirstOccurrenceCounts) {
    EXPECT_EQ(GetDataValue(L"Key=one;Key=two", L"Key="), L"one");
}

TEST(GetDataValue, KeyMatchesAnywhereAndAsTheTailOfALongerKey) {
    EXPECT_EQ(GetDataValue(L"PostAction=late;Action=ALL", L"Action="), L"late");
    EXPECT_EQ(GetDataValue(L"Action=ALL;PostAction=late", L"Action="), L"ALL");
    EXPECT_EQ(GetDataValue(L"a Key=b;c", L"Key="), L"b");
}

TEST(GetDataValue, KeysAreCaseSensitive) {
    // "key=" is absent: the text from the key's length minus 1 onward comes back.
    EXPECT_EQ(GetDataValue(L"Key=value", L"key="), L"=value");
}

TEST(GetDataValue, AbsentKeyYieldsTheTextFromItsLengthMinusOne) {
    EXPECT_EQ(GetDataValue(L"InstallDir=C:\\X", L"ServiceName="), L"C:\\X");
    EXPECT_EQ(GetDataValue(L"InstallDir=C:\\X;More=1", L"ServiceName="), L"C:\\X");
    // A semicolon before that index does not end the value, one at the index does.
    EXPECT_EQ(GetDataValue(L"a;bcd;e", L"Key="), L"cd");
    EXPECT_EQ(GetDataValue(L"abc;d", L"Key="), L"");
    // A text of exactly that many characters gives an empty value.
    EXPECT_EQ(GetDataValue(L"12345678901", L"ServiceName="), L"");
}

TEST(GetDataValue, AbsentKeyBeyondTheEndThrows) {
    EXPECT_THROW(GetDataValue(L"1234567890", L"ServiceName="), std::out_of_range);
    EXPECT_THROW(GetDataValue(L"", L"ab"), std::out_of_range);
}

TEST(GetDataValue, EmptyDataThrowsForEveryKeyLongerThanOneCharacter) {
    EXPECT_EQ(GetDataValue(L"", L"="), L"");
    EXPECT_THROW(GetDataValue(L"", L"Action="), std::out_of_range);
}

TEST(GetDataValue, NonLatinAndLongTexts) {
    EXPECT_EQ(GetDataValue(L"Username=\u0416\u00e9\u4e2d;TaskName=x", L"Username="),
              L"\u0416\u00e9\u4e2d");
    const std::wstring longValue(30000, L'v');
    EXPECT_EQ(GetDataValue(L"Key=" + longValue + L";Next=1", L"Key="), longValue);
}

TEST(GetDataValueOrEmpty, PicksTheValueThatGetDataValuePicks) {
    for (const wchar_t* data : {L"Key=a b=c;Other=d", L"Other=d;Key=a b=c", L"MyKey=a b=c"}) {
        EXPECT_EQ(GetDataValueOrEmpty(data, L"Key="), L"a b=c") << data;
    }
    EXPECT_EQ(GetDataValueOrEmpty(L"Key=;Other=d", L"Key="), L"");
}

TEST(GetDataValueOrEmpty, AnAbsentKeyIsEmptyWhateverTheLengthOfTheData) {
    for (const wchar_t* data : {L"", L"Ke", L"Key", L"Key:C:\\Program Files", L"key=C:\\X",
                                L"Other=C:\\X;C:\\Program Files"}) {
        EXPECT_EQ(GetDataValueOrEmpty(data, L"Key="), L"") << data;
    }
}
