// The text cursor and the text helpers, on empty, huge, signed and malformed input.
#include <gtest/gtest.h>

#include <climits>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "UTextParam.h"
#include "UTextUtil.h"

namespace {

using Texts = std::vector<std::string>;

// Every record the cursor yields, as "key|value".
Texts Records(std::string text, bool trimmed) {
    UTextParam cursor(&text[0]);
    Texts found;
    char *key = nullptr, *value = nullptr;
    while (trimmed ? cursor.GetNextParam(key, value, '=', "\r\n")
                   : cursor.getNextParam(key, value, '=', '&'))
        found.push_back(std::string(key) + "|" + value);
    return found;
}

}  // namespace

TEST(TextParam, RecordsWithAndWithoutTrimming) {
    const struct {
        const char* text;
        bool trimmed;
        Texts records;
    } cases[] = {{"a = 1\r\n\r\nb=2\nnoval\n=x\nc = ", true, {"a|1", "b|2", "c|"}},
                 {"a=1&b= 2 &k=&x=1", false, {"a|1", "b| 2 ", "k|", "x|1"}},
                 {"k=", false, {"k|"}},
                 {"=x&a=1", false, {}},
                 {"", true, {}},
                 {"", false, {}}};
    for (const auto& c : cases)
        EXPECT_EQ(Records(c.text, c.trimmed), c.records) << c.text;
    char *key = nullptr, *value = nullptr;
    EXPECT_FALSE(UTextParam().GetNextParam(key, value, '=', "\n"));
    EXPECT_FALSE(UTextParam().getNextParam(key, value, '=', '&'));

    char text[] = "id=7&x=&y=2";
    UTextParam cursor;
    cursor.setTextParam(text);
    EXPECT_EQ(static_cast<char*>(cursor), text);
    EXPECT_EQ(cursor.getNextParam("i", '=', '&'), nullptr) << "a longer key is another key";
    EXPECT_STREQ(cursor.getNextParam("id", '=', '&'), "7");
    EXPECT_STREQ(cursor.getTextParam(), "x=&y=2");
    EXPECT_STREQ(cursor.getNextParam("x", '=', '&'), "");
    EXPECT_STREQ(cursor.getNextParam("y", '=', '&'), "2");
    EXPECT_EQ(cursor.getTextParam(), nullptr) << "the last value ends the walk";
    EXPECT_EQ(cursor.getNextParam("y", '=', '&'), nullptr);
}

TEST(TextParam, NumbersAndFormattedTexts) {
    const struct {
        const char* text;
        int base, value;
    } numbers[] = {{"", 10, 0},
                   {"42", 10, 42},
                   {"-42", 10, -42},
                   {" +7x", 10, 7},
                   {"abc", 10, 0},
                   {"0x1f", 16, 31},
                   {"017", 0, 15},
                   {"2147483647", 10, INT_MAX},
                   {"99999999999", 10, INT_MAX},
                   {"-99999999999", 10, INT_MIN},
                   {"99999999999999999999999", 10, INT_MAX}};
    for (const auto& n : numbers)
        EXPECT_EQ(UTextParam::toIntValue(n.text, n.base), n.value) << n.text;

    char out[8] = "unused";
    EXPECT_EQ(UTextParam::makeTextParam(out, sizeof(out), "%s=%d", "key", 12345), 9);
    EXPECT_STREQ(out, "key=123") << "cut to the buffer with its zero";
    EXPECT_EQ(UTextParam::makeTextParam(out, -1, "%d", 5), 1);
    EXPECT_STREQ(out, "key=123") << "no room: nothing written";
}

TEST(TextUtil, TrimInPlaceAndOnCopies) {
    for (const auto& c : {std::make_pair(" \t x y \r\n", "x y"), std::make_pair("   ", ""),
                          std::make_pair("", ""), std::make_pair("x", "x")}) {
        std::string copy = c.first, other = c.first;
        char* start = &copy[0];
        UTextUtil::Trim(start, UTextUtil::WHITESPACE);
        EXPECT_STREQ(start, c.second) << "'" << c.first << "'";
        EXPECT_STREQ(UTextUtil::TrimStr(&other[0]), c.second);
        EXPECT_EQ(UTextUtil::Trim(std::string(c.first), UTextUtil::WHITESPACE), c.second);
    }
    char custom[] = "--a-b--";
    EXPECT_STREQ(UTextUtil::TrimStr(custom, "-"), "a-b");
}

TEST(TextUtil, KeySearches) {
    const char* text = "idx=5 id= 7 &z=9";
    EXPECT_STREQ(UTextUtil::findKey(text, "id", '='), "5 id= 7 &z=9") << "the first occurrence";
    EXPECT_STREQ(UTextUtil::findKey(text, "z", '='), "9");
    EXPECT_EQ(UTextUtil::findKey(text, "q", '='), nullptr);
    EXPECT_EQ(UTextUtil::findKey("id", "id", '='), nullptr) << "no separator after it";
    EXPECT_STREQ(UTextUtil::findValue("k =  v", '='), "v");
    EXPECT_EQ(UTextUtil::findValue("k v", '='), nullptr);

    char* value = nullptr;
    int length = -1;
    EXPECT_TRUE(UTextUtil::findKey(text, "id", '=', " &", &value, &length));
    EXPECT_EQ(std::string(value, length), "5");
    EXPECT_FALSE(UTextUtil::findKey(text, "q", '=', "&", &value, &length));
    EXPECT_TRUE(UTextUtil::findKeyExact(text, "id", '=', "&", &value, &length));
    EXPECT_EQ(std::string(value, length), " 7 ");
    for (const char* key : {"q", "", "i"})
        EXPECT_FALSE(UTextUtil::findKeyExact(text, key, '=', "&", &value, &length)) << key;

    char out[4];
    EXPECT_EQ(UTextUtil::findKeyExact(text, "id", '=', "&", out, sizeof(out)), 2);
    EXPECT_STREQ(out, " 7") << "trailing blanks go, leading ones stay";
    EXPECT_EQ(UTextUtil::findKeyExact("k=12345", "k", '=', "&", out, sizeof(out)), 3);
    EXPECT_STREQ(out, "123");
    EXPECT_EQ(UTextUtil::findKeyExact(text, "id", '=', "&", out, 0), -1);
    EXPECT_EQ(UTextUtil::findKeyExact(text, "q", '=', "&", out, sizeof(out)), -1);

    const struct {
        const char* text;
        bool found;
        int number;
    } numbers[] = {{"a=-12&", true, -12},
                   {"a=x", true, 0},
                   {"a=999999999999999", true, INT_MAX},
                   {"b=1", false, 99}};
    for (const auto& n : numbers) {
        int number = 99;
        EXPECT_EQ(UTextUtil::findKeyExact(n.text, "a", '=', "&", &number), n.found) << n.text;
        EXPECT_EQ(number, n.number) << n.text;
    }
}

TEST(TextUtil, SplitsJoinsTokensAndChangesCharacters) {
    char text[] = ",a,,b;c;";
    std::list<char*> pieces;
    UTextUtil::split(text, ",;", pieces);
    EXPECT_EQ(Texts(pieces.begin(), pieces.end()), (Texts{"a", "b", "c"}));
    char none[] = "";
    pieces.clear();
    UTextUtil::split(none, ",", pieces);
    EXPECT_TRUE(pieces.empty());

    using List = std::list<std::string>;
    EXPECT_EQ(UTextUtil::tokenize(" a , ,b ", ","), (List{"a", "", "b"}));
    EXPECT_EQ(UTextUtil::tokenize(",", ","), (List{"", ""}));
    EXPECT_TRUE(UTextUtil::tokenize("", ",").empty());
    EXPECT_EQ(UTextUtil::implode({}, ", "), "");
    EXPECT_EQ(UTextUtil::implode({"only"}, ", "), "only");
    EXPECT_EQ(UTextUtil::implode({"a", "", "b"}, ", "), "a, , b");

    char word[] = "a-B-c\xe9";
    UTextUtil::Replace(word, '-', '_');
    EXPECT_STREQ(word, "a_B_c\xe9");
    UTextUtil::ToUpper(word);
    EXPECT_STREQ(word, "A_B_C\xe9");
    UTextUtil::ToLower(word);
    EXPECT_STREQ(word, "a_b_c\xe9");

    char spaced[] = "x y  z", other[] = "p q";
    Texts tokens;
    for (char* t = UTextUtil::firstToken(spaced, " "); t != nullptr; t = UTextUtil::nextToken(" "))
        tokens.push_back(t);
    EXPECT_EQ(tokens, (Texts{"x", "y", "z"}));
    UTextUtil::firstToken(other, " ");
    char* elsewhere = other;
    std::thread([&] { elsewhere = UTextUtil::nextToken(" "); }).join();
    EXPECT_EQ(elsewhere, nullptr) << "each thread continues its own tokenization";
    EXPECT_STREQ(UTextUtil::nextToken(" "), "q");
}
