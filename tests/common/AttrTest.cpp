#include <gtest/gtest.h>
#include <sys/stat.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "SAttr.h"
#include "TestFiles.h"
#include "UFile.h"

using commontest::FileText;
using commontest::StderrCapture;
using commontest::TempDir;

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

TEST(AttrFormat, ParsesTrimsSkipsAndSavesWithoutFinalLineBreak) {
    SAttr attrs = FileStore();
    attrs.LoadMemory("B = 2\r\nA=1\n\nC=\n=5\nnoequals\nD==x\n[Section]\n");
    EXPECT_EQ(attrs.GetRawData(), (Records{{"A", "1"}, {"B", "2"}, {"D", "=x"}}));
    EXPECT_EQ(Saved(attrs), "A = 1\nB = 2\nD = =x");
    EXPECT_EQ(Saved(attrs, false, false), "A=1\nB=2\nD==x");

    std::string appended = "head:";
    attrs.SaveMemory(appended, false, true);
    EXPECT_EQ(appended, "head:A= 1\nB= 2\nD= =x");
}

TEST(AttrFormat, LastDuplicateWinsAndCommentsAreKeys) {
    SAttr attrs = FileStore();
    attrs.LoadMemory("A=1\nA=2\n;X=1\n#Y=2");
    EXPECT_EQ(attrs.GetRawData(), (Records{{"#Y", "2"}, {";X", "1"}, {"A", "2"}}));
    // A load adds to what is there.
    attrs.LoadMemory("Z=9");
    EXPECT_EQ(attrs.GetSize(), 4u);
}

TEST(AttrFormat, KeysAreOrderedBytewise) {
    SAttr attrs = FileStore();
    attrs.LoadMemory("b=1\nAB=2\nA=3\nB=4");
    std::list<std::string> keys;
    attrs.GetKeys(keys);
    EXPECT_EQ(keys, (std::list<std::string>{"A", "AB", "B", "b"}));
    std::list<std::string> values;
    attrs.GetValues(values);
    EXPECT_EQ(values, (std::list<std::string>{"3", "2", "4", "1"}));
}

TEST(AttrFormat, BufferParserKeepsSecondTerminatorAndStopsAtBufferEnd) {
    SAttr attrs = FileStore();
    std::string text = "A=1\r\nB=2\nC=\nD=4";
    // No terminating zero after the last value.
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('X');
    attrs.LoadMemory(buffer.data(), static_cast<unsigned int>(text.size()));
    EXPECT_EQ(attrs.GetRawData(), (Records{{"A", "1"}, {"D", "4"}, {"\nB", "2"}}));

    SAttr commands('=', "&", "&", nullptr);
    char pairs[] = "cmd=ppl_clear & group=0&tail";
    commands.LoadMemory(pairs, sizeof(pairs) - 1);
    EXPECT_EQ(commands.GetRawData(), (Records{{" group", "0"}, {"cmd", "ppl_clear "}}));
}

TEST(AttrFile, SaveAndLoadRoundTrip) {
    TempDir dir;
    std::string path = dir.File("status.ini");
    SAttr out('=', "\r\n", "\n", path.c_str());
    out.SetKeyValue("B", "2");
    out.SetKeyValue("A", "x y");
    mode_t old_mask = umask(0);
    EXPECT_TRUE(out.SaveFile(nullptr, true, true));
    umask(old_mask);
    EXPECT_EQ(FileText(path), "A = x y\nB = 2");
    struct stat attrs;
    ASSERT_EQ(stat(path.c_str(), &attrs), 0);
    EXPECT_EQ(attrs.st_mode & 0777, 0644u);

    SAttr in = FileStore();
    in.SetKeyValue("C", "3");
    EXPECT_TRUE(in.LoadFile(path.c_str()));
    EXPECT_EQ(in.GetRawData(), (Records{{"A", "x y"}, {"B", "2"}, {"C", "3"}}));
    // The stored name is used when none is given.
    EXPECT_TRUE(UFile::WriteFile(path.c_str(), "A=changed", 9, 0644));
    EXPECT_TRUE(in.LoadFile(nullptr));
    EXPECT_STREQ(in.GetKeyValue("A"), "changed");
}

TEST(AttrFile, EmptyAndMissingFiles) {
    TempDir dir;
    std::string empty = dir.File("empty.ini");
    ASSERT_TRUE(UFile::WriteFile(empty.c_str(), "", 0, 0644));
    SAttr attrs = FileStore();
    attrs.SetKeyValue("K", "v");
    EXPECT_TRUE(attrs.LoadFile(empty.c_str()));
    EXPECT_EQ(attrs.GetSize(), 1u);

    std::string missing = dir.File("missing.ini");
    StderrCapture capture;
    EXPECT_FALSE(attrs.LoadFile(missing.c_str()));
    std::string log = capture.Text();
    EXPECT_NE(log.find("GetFileSize('" + missing + "') error."), std::string::npos) << log;
    EXPECT_EQ(attrs.GetRawData(), (Records{{"K", "v"}}));
}

TEST(AttrFile, EmptyStoreSavedIntoMissingDirectoryReportsSuccess) {
    TempDir dir;
    std::string path = dir.File("absent/store.ini");
    SAttr empty = FileStore();
    StderrCapture quiet;
    EXPECT_TRUE(empty.SaveFile(path.c_str(), true, true));
    SAttr full = FileStore();
    full.SetKeyValue("A", "1");
    EXPECT_FALSE(full.SaveFile(path.c_str(), true, true));
    quiet.Text();
    EXPECT_FALSE(UFile::Exist(dir.File("absent").c_str()));
}

TEST(AttrValues, UnsignedReadsByBase) {
    SAttr attrs = FileStore();
    attrs.LoadMemory("H=0x1F\nP=1F\nW=abc\nO=017\nD=42");
    EXPECT_EQ(attrs.GetUIntValue("H", 16), 31u);
    EXPECT_EQ(attrs.GetUIntValue("P", 16), 31u);
    EXPECT_EQ(attrs.GetUIntValue("W", 10), 0u);
    EXPECT_EQ(attrs.GetUIntValue("D", 10), 42u);
    EXPECT_EQ(attrs.GetUIntValue("O", 8), 15u);
    EXPECT_EQ(attrs.GetUIntValue("D", 2), 0u);
    EXPECT_EQ(attrs.GetUIntValue("absent", 10), 0u);
    EXPECT_EQ(attrs.GetIntValue("H", 16), 31);
    EXPECT_EQ(attrs.GetIntValue("absent", 10), 0);
    EXPECT_FLOAT_EQ(attrs.GetFloatValue("D"), 42.0f);
    EXPECT_EQ(attrs.GetKeyValue("absent"), nullptr);
}

TEST(AttrValues, NumbersAreStoredByBase) {
    SAttr attrs = FileStore();
    attrs.SetUIntValue("U16", 255, 16);
    attrs.SetUIntValue("U8", 8, 8);
    attrs.SetUIntValue("UMAX", 4294967295u, 10);
    attrs.SetIntValue("I16", 255, 16);
    attrs.SetIntValue("Z16", 0, 16);
    attrs.SetIntValue("NEG", -7, 10);
    EXPECT_EQ(attrs.GetRawData(), (Records{{"I16", "0xff"},
                                           {"NEG", "-7"},
                                           {"U16", "255"},
                                           {"U8", "010"},
                                           {"UMAX", "4294967295"},
                                           {"Z16", "0"}}));
}

TEST(AttrValues, RecordsAndReplacement) {
    SAttr attrs('=', "&", "&", nullptr);
    std::list<std::string> records{" key = value ", "=v", "novalue", "k=", "a=b=c", "key=again"};
    attrs.SetKeyValues(records);
    EXPECT_EQ(attrs.GetRawData(), (Records{{"a", "b=c"}, {"k", ""}, {"key", "again"}}));

    // A stored value handed back in replaces itself unharmed.
    attrs.SetKeyValue("a", attrs.GetKeyValue("a"));
    EXPECT_STREQ(attrs("a"), "b=c");
    EXPECT_TRUE(attrs.RemoveKey("k"));
    EXPECT_FALSE(attrs.RemoveKey("k"));
    EXPECT_FALSE(attrs.HasKey("k"));

    SAttr colon(':', "\n", "\n", nullptr);
    colon.LoadMemory("x: 1\ny:2");
    std::list<std::string> joined;
    colon.GetKeyValues(joined);
    EXPECT_EQ(joined, (std::list<std::string>{"x=1", "y=2"}));
    EXPECT_EQ(Saved(colon, false, false), "x:1\ny:2");
    colon.Clear();
    EXPECT_EQ(colon.GetSize(), 0u);
    EXPECT_EQ(Saved(colon), "");
}
