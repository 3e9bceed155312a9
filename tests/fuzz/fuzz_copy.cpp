// Copies between a fuzzed file and a well-formed one, both ways. The input
// is one selector byte followed by the file. Bit 0 picks the direction
// (fuzzed source into a sample destination, or a sample source into the
// fuzzed destination), bits 1-2 the operation (everything, by name, by type,
// whole trailer), bit 3 the sample destination (one with entries, or a bare
// image, which takes the fuzzed trailer whole or entry by entry). Whatever the input, a copy must not crash, and every entry
// the destination listed before is still listed with the same content.
#include <cstdint>
#include <cstdio>
#include <string>

#include "builder.hpp"
#include "fuzz/edit_invariant.hpp"
#include "fuzz/fuzz_common.hpp"

namespace {

using tb::operator+;

// The well-formed side: an image with a 1-byte entry and one with
// sub-information.
inv::Bytes sample() {
    static const inv::Bytes b =
        tb::fakeImage(64) + tb::trailer({{1, "a", "x", ""}, {3, "bb", "payload", "s"}});
    return b;
}

int copyOp(int op, const char *src, const char *dst) {
    switch (op) {
    case 0: return copyYAXData(src, dst);
    case 1: return copyYAXDataKeyName(src, dst, "a");
    case 2: return copyYAXDataType(src, dst, 3);
    default: return mergeYAXData(src, dst);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t sel = data[0];
    const std::string &fuzzed = fz::workFile();
    const std::string other = fuzzed + ".other";
    const inv::Bytes file(data + 1, data + size);
    inv::spill(fuzzed, data + 1, size - 1);
    const bool intoSample = (sel & 1) == 0;
    const inv::Bytes s = intoSample && (sel & 8) != 0 ? tb::fakeImage(64) : sample();
    inv::spill(other, s.data(), s.size());
    const std::string &dst = intoSample ? other : fuzzed;
    const std::string &src = intoSample ? fuzzed : other;
    const inv::Listing before = inv::listingAfter(dst, inv::slurp(dst));
    const int r = copyOp((sel >> 1) & 3, src.c_str(), dst.c_str());
    // a bare destination that a copy reports done must still parse when
    // something arrived
    if (r == 1 && intoSample && (sel & 8) != 0 && inv::slurp(dst) != s && getSignature(dst.c_str()) != SIGNATURE_NONE &&
        !inv::listingAfter(dst, inv::slurp(dst)).listed)
        fz::fail("copy", "the copied trailer does not parse", file);
    // (a trailer the library's list bound refuses is read from the bytes)
    const inv::Listing after = inv::listingAfter(dst, inv::slurp(dst));
    // A destination with entries keeps each of them (a copy adds, it never
    // replaces); one without keeps its bytes in front of what arrived.
    for (const inv::Item &i : before.items) {
        bool kept = false;
        for (const inv::Item &j : after.items)
            kept = kept || (j.name == i.name && j.payload == i.payload && j.type == i.type);
        if (!kept) fz::fail("copy", ("entry lost: " + i.name).c_str(), file);
    }
    std::remove(other.c_str());
    return 0;
}
