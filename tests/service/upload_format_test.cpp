// The pieces of an upload that are pure formatting: the cookie snapshot, the multipart body,
// the capture window and the MIME type.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "base/files.h"
#include "platform/http/plist_cookies.h"
#include "service/multipart_builder.h"
#include "service/resumable_upload.h"
#include "tests/support/temp_home.h"

namespace vell::service {
namespace {

namespace fs = std::filesystem;

TEST(CookieSnapshot, RoundTripsThroughABinaryPropertyList) {
    std::vector<http::Cookie> cookies = {
        {"vell_session", "abc123", "127.0.0.1", "/", false, true, 1'900'000'000},
        {"prefs", "x=y; z", ".example.com", "/app", true, false, std::nullopt},
    };
    std::string bytes = plist::encodeCookies(cookies);
    ASSERT_EQ(bytes.rfind("bplist00", 0), 0u);
    auto decoded = plist::decodeCookies(bytes);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 2u);
    EXPECT_EQ((*decoded)[0].name, "vell_session");
    EXPECT_EQ((*decoded)[0].value, "abc123");
    EXPECT_EQ((*decoded)[0].domain, "127.0.0.1");
    EXPECT_EQ((*decoded)[0].expires, 1'900'000'000);
    EXPECT_EQ((*decoded)[1].path, "/app");
    EXPECT_TRUE((*decoded)[1].secure);
    EXPECT_FALSE((*decoded)[1].expires);
    EXPECT_TRUE(plist::decodeCookies(plist::encodeCookies({}))->empty());
}

TEST(CookieSnapshot, GarbageRestoresNothing) {
    EXPECT_FALSE(plist::decodeCookies(""));
    EXPECT_FALSE(plist::decodeCookies("bplist00 but not really a property list"));
    EXPECT_FALSE(plist::decodeCookies(R"([{"Name":"vell_session"}])"));
}

std::string slurp(const fs::path& p) {
    std::error_code ec;
    return files::read(p, ec).value_or("<unreadable>");
}

TEST(MultipartBody, ExactBytesEmptyFieldsLeftOutFileRemovedAfterwards) {
    test::TempHome home;
    fs::path audio = home.root() / "vell_rec_1.aac";
    std::string content(1'048'576 + 3, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 + 7);
    std::ofstream(audio, std::ios::binary) << content;

    fs::path bodyPath;
    {
        auto created = MultipartBuilder::create();
        ASSERT_TRUE(created);
        auto& b = **created;
        bodyPath = b.url();
        // A copy of a recording's audio: in the private folder, the user's alone.
        EXPECT_EQ(bodyPath.parent_path(), home.runtime() / "vell");
        EXPECT_EQ(std::filesystem::status(bodyPath).permissions(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        EXPECT_EQ(bodyPath.filename().string().rfind("upload-", 0), 0u);
        EXPECT_EQ(bodyPath.extension(), ".multipart");
        EXPECT_EQ(b.boundary().rfind("vell-", 0), 0u);
        EXPECT_FALSE(b.addFile("audio", "vell_rec_1.aac", "audio/aac", audio));
        EXPECT_FALSE(b.addField("summary_prompt_id", ""));
        EXPECT_FALSE(b.addField("capture_started_at", "1800000000000"));
        EXPECT_FALSE(b.finish());
        const std::string& k = b.boundary();
        std::string expected = "--" + k + "\r\nContent-Disposition: form-data; name=\"audio\"; filename=\"vell_rec_1.aac\"\r\n" +
                               "Content-Type: audio/aac\r\n\r\n" + content + "\r\n" + "--" + k +
                               "\r\nContent-Disposition: form-data; name=\"capture_started_at\"\r\n\r\n1800000000000\r\n" +
                               "--" + k + "--\r\n";
        EXPECT_EQ(slurp(bodyPath), expected);
    }
    EXPECT_FALSE(fs::exists(bodyPath));
}

TEST(UploadFormat, CaptureWindowOnlyWhenEndIsAfterStartRoundedToMilliseconds) {
    WallTime start = fromMillisecondsSince1970(1'800'000'000'000.4);
    WallTime end = start + std::chrono::microseconds(2'500'600);
    auto ms = captureMilliseconds(CaptureWindow{start, end});
    ASSERT_TRUE(ms);
    EXPECT_EQ(ms->first, 1'800'000'000'000);
    EXPECT_EQ(ms->second, 1'800'000'002'501);
    EXPECT_FALSE(captureMilliseconds(CaptureWindow{start, start}));
    EXPECT_FALSE(captureMilliseconds(CaptureWindow{start, std::nullopt}));
    EXPECT_FALSE(captureMilliseconds(std::nullopt));
    EXPECT_EQ(mimeTypeFor("a/vell_rec_x.AAC"), "audio/aac");
    EXPECT_EQ(mimeTypeFor("a/segment.m4a"), "audio/mp4");
    EXPECT_EQ(mimeTypeFor("a/noextension"), "audio/mp4");
}

}  // namespace
}  // namespace vell::service
