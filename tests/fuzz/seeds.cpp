// Writes the seed corpora of the fuzz targets, made with the tests' own byte
// builder: well-formed trailers of every kind the library writes, and the
// damaged ones that editing has to refuse. `fuzz_seeds DIR` makes
// DIR/<target>/<seed>; the edit targets get each file behind a few pairs of
// selector bytes.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "builder.hpp"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

const Bytes kImage = tb::fakeImage(200);
const std::vector<Entry> kThree = {{1, "a", "1", ""}, {7, "bb", "payload", "s"}, {2, "c", "xyz", ""}};

Bytes withRows(const std::vector<Entry> &entries, const std::vector<tb::Row> &rows) {
    Bytes out = kImage;
    for (const Entry &e : entries) out = out + tb::block(e);
    return out + tb::header(rows);
}

std::vector<std::pair<std::string, Bytes>> files() {
    std::vector<std::pair<std::string, Bytes>> f;
    const auto rows = tb::rowsFor(kThree);
    const Entry filler{0x7FFE, "Invalid_Data", std::string(20, '\0'), ""};
    f.push_back({"plain", kImage + tb::trailer(kThree)});
    f.push_back({"one", kImage + tb::trailer({{1, "a", "1", ""}})});
    f.push_back({"filler", kImage + tb::trailer({filler, kThree[0], kThree[1]})});
    const Bytes list = tb::toneList({"TonePhoto_000"});
    const std::vector<Entry> tone = {{256, "TonePhoto_000", "soundbytes", ""},
                                     {2048, "TonePhoto_Meta_Info", std::string(list.begin(), list.end()), ""}};
    const uint32_t sound = uint32_t(kImage.size() + 8 + 13 + 8);
    f.push_back({"tone", kImage + tb::trailer(tone) + tb::vonoBlock({{sound, sound + 10}})});
    // two sounds and a user entry between them, the end record on the first
    const Bytes two = tb::toneList({"TonePhoto_000", "b"});
    const std::vector<Entry> sounds = {tone[0], {1, "k", "K", ""}, {256, "b", "BB", ""},
                                       {2048, "TonePhoto_Meta_Info", std::string(two.begin(), two.end()), ""}};
    f.push_back({"tone2", kImage + tb::trailer(sounds) + tb::vonoBlock({{sound, sound + 10}})});
    f.push_back({"legacy", kImage + tb::bytes("soundbytes") +
                               tb::vonoBlock({{uint32_t(kImage.size()), uint32_t(kImage.size() + 10)}})});
    Bytes mp4 = tb::Builder().u32be(24).str("ftypisom").zeros(12).done();
    const Bytes t = tb::trailer(kThree);
    f.push_back({"mp4", mp4 + tb::Builder().u32be(uint32_t(t.size() + 8)).str("yaxd").done() + t});

    // Damaged: blocks that do not follow each other, a block into the
    // header, a huge sound start, a filler that is not row 0, an absurd name
    // length with a legacy tail, stale bytes behind the rows.
    auto r = rows;
    r[1].offset += 4;
    f.push_back({"gap", withRows(kThree, r)});
    r = rows;
    r[1].offset -= 2;
    f.push_back({"overlap", withRows(kThree, r)});
    r = rows;
    r[1].length -= 1;
    f.push_back({"short_row", withRows(kThree, r)});
    r = rows;
    for (auto &x : r) x.offset += 6;
    f.push_back({"gap_before_header", withRows(kThree, r) });
    r = rows;
    r[2].length = r[2].offset + 8;
    f.push_back({"into_header", withRows(kThree, r)});
    f.push_back({"huge_sound", kImage + tb::bytes("snd") + tb::vonoBlock({{0x00FFFFF0u, 0x00FFFFF8u}})});
    f.push_back({"filler_row1", kImage + tb::trailer({kThree[0], filler, kThree[2]})});
    Bytes absurd = kImage + tb::trailer({kThree[0], {1, "nm", "zz", ""}, kThree[2]});
    const size_t name_len_at = kImage.size() + tb::blockLength(kThree[0]) + 4;
    absurd[name_len_at + 3] = 0x08;  // 134,217,728 + 2
    const uint32_t s2 = uint32_t(kImage.size());
    f.push_back({"absurd_name_legacy", absurd + tb::vonoBlock({{s2, s2 + 4}})});
    Bytes stale = kImage;
    for (const Entry &e : kThree) stale = stale + tb::block(e);
    tb::Builder h;
    h.str("YAXH").u32(105).u32(3);
    for (const auto &x : rows) h.u32(x.meta_type).u32(x.offset).u32(x.length);
    h.zeros(12).u32(12 + 36 + 12).str("YAXT");
    f.push_back({"stale", stale + h.done()});
    return f;
}

void put(const std::string &path, const Bytes &b) {
    FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) return;
    std::fwrite(b.data(), 1, b.size(), out);
    std::fclose(out);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    const char *targets[] = {"read", "delete_name", "delete_multi", "delete_all",
                             "fast_delete", "save", "fast_save", "sound", "mp4_save", "buffer_save", "cover"};
    const std::pair<uint8_t, uint8_t> selectors[] = {{0, 0}, {1, 3}, {2, 1}, {0x41, 0x88}, {0xC1, 0x19}};
    mkdir(dir.c_str(), 0755);
    for (const char *t : targets) {
        const std::string td = dir + "/" + t;
        mkdir(td.c_str(), 0755);
        for (const auto &[name, bytes] : files()) {
            if (std::string(t) == "read") {
                put(td + "/" + name, bytes);
                continue;
            }
            for (const auto &[a, b] : selectors)
                put(td + "/" + name + "_" + std::to_string(a) + "_" + std::to_string(b),
                    Bytes{a, b} + bytes);
        }
    }
    return 0;
}
