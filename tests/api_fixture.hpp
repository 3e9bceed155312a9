#pragma once
// Shared by the save, fast-save and delete suites: a real JPEG as host, a
// temporary directory per test, files built with the independent builder,
// and a decode check of the host image after an edit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "builder.hpp"
#include "testutil.hpp"

namespace at {

using tb::Bytes;
using tb::Entry;
using tb::operator+;

inline Bytes host() {
    static const Bytes jpeg = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg");
    return jpeg;
}

inline uint32_t u32size(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// The legacy block this library writes for one sound.
inline Bytes vono1(uint32_t start, uint32_t end) { return tb::vonoBlock({{start, end}}); }

// The TonePhoto pair a converted legacy file holds.
inline Entry toneSound(const std::string &sound) {
    return Entry{256, "TonePhoto_000", sound, ""};
}
inline Entry toneMeta() {
    Bytes list = tb::toneList({"TonePhoto_000"});
    return Entry{2048, "TonePhoto_Meta_Info", std::string(list.begin(), list.end()), ""};
}

class ApiTest : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string file = dir.path("photo.jpg");

    void put(const Bytes &content) { tu::writeFile(file, content); }
    Bytes now() const { return tu::readFile(file); }
    // Only the edited file is left: no temporary file survives an edit.
    void expectAlone() const { EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"}); }
    // The host image still decodes (skipped where the decoder is absent).
    void expectDecodes() const {
        if (access("/usr/bin/djpeg", X_OK) != 0) return;
        std::string cmd = "/usr/bin/djpeg -outfile /dev/null '" + file + "' 2>/dev/null";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
};

}  // namespace at
