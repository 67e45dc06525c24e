// String, path, folder and file utilities.
#include "hostapi/fileutil.h"
#include "hostapi/fxfile.h"
#include "temp_home.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <filesystem>
#include <fstream>

namespace {
using Parts = std::vector<std::string>;
Parts Split(const std::string& text) {
    std::vector<CQiString> parts = {"stale"};
    CQiString(text).Tokenize(parts, '|');
    return {parts.begin(), parts.end()};
}
}  // namespace

TEST(StringTest, TokenizeAndFormat) {
    EXPECT_EQ(Split(""), Parts{});
    EXPECT_EQ(Split("12"), Parts{"12"});
    EXPECT_EQ(Split("12|"), (Parts{"12", ""}));
    EXPECT_EQ(Split("a||b"), (Parts{"a", "", "b"}));
    EXPECT_EQ(CQiString::Format("{1}/x/{1}", "ab"), "ab/x/ab");
    EXPECT_EQ(CQiString::Format("<{1}>", "{1}{1}"), "<{1}{1}>");  // argument inserted as is
    const std::string big(5000, 'q');
    EXPECT_EQ(FXString::Format("%s-%d", big.c_str(), 42), big + "-42");
}

TEST(PathTest, DelimitersJoinAndBaseName) {
    auto append = [](std::string p) { return FXPath::AppendTrailingDelimiter(p).IsError() ? "<error>" : p; };
    auto strip = [](std::string p) { return FXPath::RemoveTrailingDelimiter(p).IsError() ? "<error>" : p; };
    EXPECT_EQ(append("/a"), "/a/");
    EXPECT_EQ(append("/a/"), "/a/");
    EXPECT_EQ(append(""), "");
    EXPECT_EQ(strip("/a//"), "/a/");
    EXPECT_EQ(strip("/"), "/");
    EXPECT_EQ(FXPath::Join("/a/", "/b"), "/a/b");
    EXPECT_EQ(FXPath::Join("/", "b"), "/b");
    EXPECT_EQ(FXPath::Join("", "b"), "b");
    for (auto [path, base] :
         {std::pair{"/jr/12345/", "12345"}, {"/jr/12345", "12345"}, {"name//", "name"}, {"/", "/"}, {"", ""}})
        EXPECT_EQ(CQiPath::GetBaseName(path), base) << path;
}

TEST(DirectoryTest, CreateClassifyDelete) {
    vstest::TempHome home;
    const std::string deep = home.sub("x/y/z");
    EXPECT_FALSE(FXFolder::Create(deep, 0750).IsError());
    EXPECT_FALSE(FXFolder::Create(deep + "/", 0750).IsError());  // already there
    EXPECT_TRUE(FXFolder::DoesFolderExist(deep));
    const std::string file = home.sub("x/file");
    std::ofstream(file) << "data";
    EXPECT_EQ(FXFolder::Create(file + "/sub").Errno(), ENOTDIR);

    const std::string dangling = home.sub("x/dangling");  // occupies its name, is no file
    ASSERT_EQ(symlink(home.sub("nowhere").c_str(), dangling.c_str()), 0);
    EXPECT_TRUE(CQiPath::Exists(dangling) && !CQiPath::IsFile(dangling));
    EXPECT_FALSE(CQiFile::Delete(file).IsError());
    EXPECT_FALSE(CQiPath::Exists(file));
    EXPECT_EQ(CQiFile::Delete(file).AsString(), "unlink " + file + ": No such file or directory (errno 2)");
    EXPECT_FALSE(CQiFile::Delete(file, true).IsError());
}

TEST(DirectoryTest, RecursiveRemoveStaysInsideTree) {
    vstest::TempHome home;
    const std::string outside = home.sub("outside");
    ASSERT_FALSE(FXFolder::Create(outside).IsError());
    std::ofstream(outside + "/precious") << "keep";
    const std::string tree = home.sub("tree");
    ASSERT_FALSE(FXFolder::Create(tree + "/a/b/c").IsError());
    std::ofstream(tree + "/a/b/c/f") << "2";
    ASSERT_EQ(symlink(outside.c_str(), (tree + "/a/b/to_dir").c_str()), 0);
    ASSERT_EQ(symlink((outside + "/precious").c_str(), (tree + "/to_file").c_str()), 0);

    EXPECT_EQ(CQiDirectory::Remove(tree, false).Errno(), ENOTEMPTY);
    const std::string link = home.sub("link_to_outside");  // a link named as the folder
    ASSERT_EQ(symlink(outside.c_str(), link.c_str()), 0);
    EXPECT_TRUE(CQiDirectory::Remove(link, true).IsError());

    CQiError err = CQiDirectory::Remove(tree, true);
    EXPECT_FALSE(err.IsError()) << err.AsString();
    EXPECT_FALSE(CQiPath::Exists(tree));
    EXPECT_TRUE(CQiPath::IsFile(outside + "/precious"));
    EXPECT_EQ(CQiDirectory::Remove(tree, true).Errno(), ENOENT);
    EXPECT_FALSE(CQiDirectory::Remove(tree, true, true).IsError());
}

// Whole-file copies of a snapshot's files (the readers' configuration files) open beneath
// their volume: a link swapped in after the VM was mounted cannot lead out, a FIFO is
// refused without waiting; a file outside every volume opens as it is.
TEST(FXFileCopy, SnapshotFilesOpenBeneathTheirVolumeOnly) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const std::string folder = s.vm("web01").folder + "/", outside = home.sub("outside.txt");
    std::ofstream(outside) << "not of the snapshot";
    std::filesystem::remove(folder + "web01.nvram");
    std::filesystem::create_symlink(outside, folder + "web01.nvram");
    std::filesystem::remove(folder + "web01.vmxf");
    ASSERT_EQ(mkfifo((folder + "web01.vmxf").c_str(), 0600), 0);
    const struct {
        std::string path;
        bool opens;
    } cases[] = {
        {folder + "web01.vmx", true}, {folder + "web01.nvram", false}, {folder + "web01.vmxf", false}, {outside, true}};
    for (const auto& c : cases) {
        auto_handle h(
            FXFile::KTCreateFile(c.path, KT_GENERIC_READ, KT_FILE_SHARE_READ, nullptr, KT_OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(h.is_valid(), c.opens) << c.path;
        unsigned long long size = 0;
        EXPECT_EQ(FXFile::KTGetFileSize(c.path, size).IsError(), !c.opens) << c.path;
    }
}
