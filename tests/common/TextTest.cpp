#include <gtest/gtest.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

#include "UTextParam.h"
#include "UTextUtil.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs AllRecords(char* text, const char* terminators) {
    UTextParam cursor(text);
    Pairs found;
    char* key = nullptr;
    char* value = nullptr;
    while (cursor.GetNextParam(key, value, '=', terminators))
        found.emplace_back(key, value);
    EXPECT_FALSE(cursor.GetNextParam(key, value, '=', terminators));
    return found;
}

std::string Trimmed(const char* text) {
    std::string copy(text);
    char* start = &copy[0];
    UTextUtil::Trim(start, UTextUtil::WHITESPACE);
    return start;
}

}  // namespace

TEST(TextParam, RecordsAcrossLineEndingsAreTrimmed) {
    char text[] = "a = 1\r\n\r\nb=2\nnoval\n=x\nc = ";
    EXPECT_EQ(AllRecords(text, "\r\n"), (Pairs{{"a", "1"}, {"b", "2"}, {"c", ""}}));

    char none[] = "\n\r\n";
    EXPECT_TRUE(AllRecords(none, "\r\n").empty());
    UTextParam empty;
    char* key = nullptr;
    char* value = nullptr;
    EXPECT_FALSE(empty.GetNextParam(key, value, '=', "\n"));

    // A new text starts over.
    char again[] = "x=1";
    empty.setTextParam(again);
    EXPECT_TRUE(empty.GetNextParam(key, value, '=', "\n"));
    EXPECT_STREQ(key, "x");
}

TEST(TextParam, SingleRecordCursor) {
    char text[] = "a=1&b= 2 &c=";
    UTextParam cursor(text);
    char* key = nullptr;
    char* value = nullptr;
    ASSERT_TRUE(cursor.getNextParam(key, value, '=', '&'));
    EXPECT_STREQ(key, "a");
    EXPECT_STREQ(value, "1");
    ASSERT_TRUE(cursor.getNextParam(key, value, '=', '&'));
    EXPECT_STREQ(value, " 2 ");
    ASSERT_TRUE(cursor.getNextParam(key, value, '=', '&'));
    EXPECT_STREQ(key, "c");
    EXPECT_EQ(cursor.getTextParam(), nullptr);
    EXPECT_FALSE(cursor.getNextParam(key, value, '=', '&'));

    char named[] = "cmd=ppl_clear&group=0";
    cursor.setTextParam(named);
    EXPECT_EQ(cursor.getNextParam("cm", '=', '&'), nullptr);
    EXPECT_STREQ(cursor.getNextParam("cmd", '=', '&'), "ppl_clear");
    EXPECT_STREQ(cursor.getNextParam("group", '=', '&'), "0");
    EXPECT_EQ(static_cast<char*>(cursor), nullptr);

    char out[8];
    EXPECT_EQ(UTextParam::makeTextParam(out, sizeof(out), "in%d=%d", 0, 12345), 9);
    EXPECT_STREQ(out, "in0=123");
    EXPECT_EQ(UTextParam::toIntValue("ff", 16), 255);
}

TEST(TextUtil, TrimVariants) {
    EXPECT_EQ(Trimmed(" \t x y \r\n"), "x y");
    EXPECT_EQ(Trimmed("   "), "");
    EXPECT_EQ(Trimmed(""), "");
    EXPECT_EQ(Trimmed("x"), "x");
    char text[] = "--a-b--";
    EXPECT_STREQ(UTextUtil::TrimStr(text, "-"), "a-b");
    EXPECT_EQ(UTextUtil::Trim(std::string("\v\fword\t"), UTextUtil::WHITESPACE), "word");
    EXPECT_EQ(UTextUtil::Trim(std::string(" \n"), UTextUtil::WHITESPACE), "");
}

TEST(TextUtil, KeySearches) {
    const char* text = "idx=5 id=7 &name= cam one &";
    EXPECT_STREQ(UTextUtil::findKey(text, "id", '='), "5 id=7 &name= cam one &");
    EXPECT_EQ(UTextUtil::findKey(text, "absent", '='), nullptr);

    char* value = nullptr;
    int length = 0;
    ASSERT_TRUE(UTextUtil::findKeyExact(text, "id", '=', " &", &value, &length));
    EXPECT_EQ(std::string(value, length), "7");
    ASSERT_TRUE(UTextUtil::findKey(text, "name", '=', "&", &value, &length));
    EXPECT_EQ(std::string(value, length), " cam one ");

    char out[16];
    EXPECT_EQ(UTextUtil::findKeyExact(text, "name", '=', "&", out, sizeof(out)), 8);
    EXPECT_STREQ(out, " cam one");
    EXPECT_EQ(UTextUtil::findKeyExact(text, "name", '=', "&", out, 5), 4);
    EXPECT_STREQ(out, " cam");
    EXPECT_EQ(UTextUtil::findKeyExact(text, "na", '=', "&", out, sizeof(out)), -1);

    int number = 0;
    EXPECT_TRUE(UTextUtil::findKeyExact("a=1 id =42 ", "id", '=', "&", &number));
    EXPECT_EQ(number, 42);
    EXPECT_FALSE(UTextUtil::findKeyExact("idx=5", "id", '=', "&", &number));
    EXPECT_STREQ(UTextUtil::findValue("k=  v", '='), "v");
    EXPECT_EQ(UTextUtil::findValue("kv", '='), nullptr);
}

TEST(TextUtil, SplitTokenizeImplode) {
    char text[] = ",,a,b,,c,";
    std::list<char*> parts;
    UTextUtil::split(text, ",", parts);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_STREQ(parts.back(), "c");

    EXPECT_EQ(UTextUtil::tokenize(" a , b,,c ", ","), (std::list<std::string>{"a", "b", "", "c"}));
    EXPECT_TRUE(UTextUtil::tokenize("", ",").empty());

    EXPECT_EQ(UTextUtil::implode({}, ", "), "");
    EXPECT_EQ(UTextUtil::implode({"only"}, ", "), "only");
    EXPECT_EQ(UTextUtil::implode({"a", "b", "c"}, ", "), "a, b, c");

    char words[] = "one two  three";
    EXPECT_STREQ(UTextUtil::firstToken(words, " "), "one");
    EXPECT_STREQ(UTextUtil::nextToken(" "), "two");
    EXPECT_STREQ(UTextUtil::nextToken(" "), "three");
    EXPECT_EQ(UTextUtil::nextToken(" "), nullptr);

    char mixed[] = "a_B_c";
    UTextUtil::Replace(mixed, '_', '-');
    UTextUtil::ToUpper(mixed);
    EXPECT_STREQ(mixed, "A-B-C");
    UTextUtil::ToLower(mixed);
    EXPECT_STREQ(mixed, "a-b-c");
}
