#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SAttr.h"
#include "Sandbox.h"
#include "UFile.h"

namespace {

using Records = std::map<std::string, std::string>;

SAttr FileStore() {
    return SAttr('=', "\r\n", "\n", nullptr);
}

std::string Saved(SAttr& attrs, bool space_before = true, bool space_after = true) {
    std::string text;
    attrs.SaveMemory(text, space_before, space_after);
    return text;
}

}  // namespace

TEST(AttrFormat, ParsesTrimsSkipsAndSavesInKeyOrderWithoutFinalLineBreak) {
    SAttr attrs = FileStore();
    attrs.LoadMemory(
        "  B = 2 \t\r\nA=0\n\nC=\n=5\nnoequals\nD==x\n[Section]\n;X=1\n#Y=2\nA=1\nb=3\nAB=4");
    EXPECT_EQ(Saved(attrs), "#Y = 2\n;X = 1\nA = 1\nAB = 4\nB = 2\nD = =x\nb = 3");
    std::string appended = "head:";
    attrs.SaveMemory(appended, false, true);
    EXPECT_EQ(appended, "head:#Y= 2\n;X= 1\nA= 1\nAB= 4\nB= 2\nD= =x\nb= 3");
    EXPECT_EQ(Saved(attrs, true, false), "#Y =2\n;X =1\nA =1\nAB =4\nB =2\nD ==x\nb =3");

    attrs.LoadMemory("Z=9");  // a load adds to what is there
    EXPECT_EQ(attrs.GetSize(), 8u);
    attrs.Clear();
    EXPECT_EQ(Saved(attrs), "");
}

TEST(AttrFormat, BufferParserKeepsSecondTerminatorAndStopsAtBufferEnd) {
    SAttr attrs = FileStore();
    std::string text = "A=1\r\nB=2\nC=\nD=4";
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('X');  // no terminating zero after the last value
    attrs.LoadMemory(buffer.data(), static_cast<unsigned int>(text.size()));
    EXPECT_EQ(attrs.GetRawData(), (Records{{"A", "1"}, {"D", "4"}, {"\nB", "2"}}));

    SAttr commands('=', "&", "&", nullptr);
    char pairs[] = "cmd=ppl_clear & group=0&tail";
    commands.LoadMemory(pairs, sizeof(pairs) - 1);
    EXPECT_EQ(commands.GetRawData(), (Records{{" group", "0"}, {"cmd", "ppl_clear "}}));
}

TEST(AttrFile, SaveLoadRoundTripAndEdgeResults) {
    ppltest::TempDir dir;
    std::string path = dir.File("status.ini");
    SAttr out('=', "\r\n", "\n", path.c_str());
    out.SetKeyValue("B", "2");
    out.SetKeyValue("A", "x y");
    mode_t old_mask = umask(0);
    EXPECT_TRUE(out.SaveFile(nullptr, true, true));
    umask(old_mask);
    EXPECT_EQ(ppltest::ReadWholeFile(path), "A = x y\nB = 2");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    SAttr in = FileStore();
    in.SetKeyValue("C", "3");
    EXPECT_TRUE(in.LoadFile(path.c_str()));
    EXPECT_EQ(in.GetRawData(), (Records{{"A", "x y"}, {"B", "2"}, {"C", "3"}}));
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), "", 0, 0644));
    EXPECT_TRUE(in.LoadFile(nullptr)) << "the stored name, now an empty file";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(in.LoadFile(dir.File("missing").c_str()));
    EXPECT_EQ(in.GetSize(), 3u);
    // Saving an empty store into a missing directory reports success, deliberately.
    std::string absent = dir.File("absent/x.ini");
    EXPECT_TRUE(FileStore().SaveFile(absent.c_str(), true, true));
    EXPECT_FALSE(in.SaveFile(absent.c_str(), true, true));
    testing::internal::GetCapturedStderr();
}

TEST(AttrValues, NumbersByBase) {
    SAttr attrs = FileStore();
    attrs.LoadMemory("H=0x1F\nP=1F\nW=abc\nO=017\nD=42");
    const struct {
        const char* key;
        int base;
        unsigned int value;
    } reads[] = {{"H", 16, 31}, {"P", 16, 31}, {"W", 10, 0},     {"D", 10, 42},
                 {"O", 8, 15},  {"D", 2, 0},   {"absent", 10, 0}};
    for (const auto& r : reads)
        EXPECT_EQ(attrs.GetUIntValue(r.key, r.base), r.value) << r.key << " in base " << r.base;
    attrs.LoadMemory("F=2.5\nBIG=99999999999\nSMALL=-99999999999");
    const struct {
        const char* key;
        int value;
    } ints[] = {{"D", 42}, {"W", 0}, {"absent", 0}, {"BIG", INT_MAX}, {"SMALL", INT_MIN}};
    for (const auto& i : ints)
        EXPECT_EQ(attrs.GetIntValue(i.key, 10), i.value) << i.key;
    EXPECT_EQ(attrs.GetIntValue("H", 16), 31);
    EXPECT_FLOAT_EQ(attrs.GetFloatValue("F"), 2.5f);
    EXPECT_FLOAT_EQ(attrs.GetFloatValue("absent"), 0.0f);

    attrs.Clear();
    attrs.SetUIntValue("U16", 255, 16);
    attrs.SetUIntValue("U8", 8, 8);
    attrs.SetUIntValue("UMAX", 4294967295u, 10);
    attrs.SetIntValue("I16", 255, 16);
    attrs.SetIntValue("Z16", 0, 16);
    attrs.SetIntValue("NEG", -7, 10);
    EXPECT_EQ(Saved(attrs, false, false),
              "I16=0xff\nNEG=-7\nU16=255\nU8=010\nUMAX=4294967295\nZ16=0");
}

TEST(AttrValues, RecordsKeepEmptyValuesAndJoinWithEquals) {
    SAttr attrs(':', "\n", "\n", nullptr);
    std::list<std::string> records{" key = value ", "=v", "novalue", "k=", "a=b=c", "key=again"};
    attrs.SetKeyValues(records);
    EXPECT_EQ(attrs.GetRawData(), (Records{{"a", "b=c"}, {"k", ""}, {"key", "again"}}));
    attrs.SetKeyValue("a", attrs.GetKeyValue("a"));  // its own stored value, unharmed
    EXPECT_STREQ(attrs("a"), "b=c");

    attrs.LoadMemory("x: 1");
    std::list<std::string> joined;
    attrs.GetKeyValues(joined);
    EXPECT_EQ(joined, (std::list<std::string>{"a=b=c", "k=", "key=again", "x=1"}));
    EXPECT_EQ(Saved(attrs, false, false), "a:b=c\nk:\nkey:again\nx:1");
    std::list<std::string> keys, values;
    attrs.GetKeys(keys);
    attrs.GetValues(values);
    EXPECT_EQ(keys, (std::list<std::string>{"a", "k", "key", "x"}));
    EXPECT_EQ(values, (std::list<std::string>{"b=c", "", "again", "1"}));
    EXPECT_TRUE(attrs.RemoveKey("k"));
    EXPECT_FALSE(attrs.RemoveKey("k"));
    EXPECT_FALSE(attrs.RemoveKey(nullptr));
    EXPECT_FALSE(attrs.HasKey(nullptr));
    EXPECT_EQ(attrs.GetKeyValue(nullptr), nullptr);
}
