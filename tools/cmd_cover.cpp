// yax cover FILE NEWIMAGE: a new image in front of the entries. Included by
// yax.cpp inside its private namespace, after cmd_cp.cpp (it shares its
// entry reader and private copies).
//
// The library's in-place change is tried first on a private copy. Where it
// would lose entries (a room left before the first block too small for a
// filler head, an overhang over every block, a filler that is not row 0),
// the copy is rebuilt instead: the new image, then every entry saved again
// in table order. FILE is replaced only when every entry reads back as it
// was and the result passes check; otherwise it is left as it was.

namespace {

bool isJpeg(const std::string &b) {
    return b.size() >= 4 && static_cast<unsigned char>(b[0]) == 0xFF &&
           static_cast<unsigned char>(b[1]) == 0xD8 &&
           static_cast<unsigned char>(b[b.size() - 2]) == 0xFF &&
           static_cast<unsigned char>(b[b.size() - 1]) == 0xD9;
}

std::optional<std::string> slurpFile(const std::string &path) {
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return std::nullopt;
    std::string out;
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) out.append(chunk, n);
    const bool bad = std::ferror(f) != 0;
    std::fclose(f);
    if (bad) return std::nullopt;
    return out;
}

// What FILE must hold after the change: the image, then the same entries
// (the filler aside) with the same contents, in the same order.
std::string coverMismatch(const std::string &path, const std::string &image,
                          const std::vector<CpEntry> &had) {
    const auto now = cpEntries(path);
    if (!now) return "the result cannot be read";
    std::vector<const CpEntry *> kept, want;
    for (const CpEntry &e : *now)
        if (e.name != kFillerName) kept.push_back(&e);
    for (const CpEntry &e : had)
        if (e.name != kFillerName) want.push_back(&e);
    if (kept.size() != want.size()) return "the number of entries changed";
    for (size_t i = 0; i < want.size(); ++i)
        if (kept[i]->name != want[i]->name || kept[i]->payload != want[i]->payload ||
            kept[i]->sub != want[i]->sub || kept[i]->type != want[i]->type)
            return "entry " + quoted(want[i]->name) + " would change";
    const auto bytes = slurpFile(path);
    if (!bytes || bytes->compare(0, image.size(), image) != 0) return "the new image is not in front";
    if (!problemsOf(path).empty()) return "the result does not pass yax check";
    return "";
}

// The new image alone, then every entry saved again in table order.
bool rebuildWithCover(const std::string &copy, const std::string &image,
                      const std::vector<CpEntry> &had) {
    {
        std::FILE *f = std::fopen(copy.c_str(), "wb");
        if (f == nullptr) return false;
        const bool ok = std::fwrite(image.data(), 1, image.size(), f) == image.size();
        if (std::fclose(f) != 0 || !ok) return false;
    }
    LibraryQuiet quiet;
    for (const CpEntry &e : had) {
        if (e.name == kFillerName) continue;
        const void *sub = e.sub.empty() ? nullptr : e.sub.data();
        if (saveYAXDataToFile(copy.c_str(), e.name.data(), static_cast<uint32_t>(e.name.size()), sub,
                              static_cast<uint32_t>(e.sub.size()), e.payload.data(),
                              static_cast<uint32_t>(e.payload.size()), e.type, 0) != 1)
            return false;
    }
    return true;
}

}  // namespace

int cmdCover(const std::string &path, const std::string &imagePath) {
    if (auto why = unusable(path, true)) return fail(*why);
    if (auto why = unusable(imagePath, false)) return fail(*why);
    const auto image = slurpFile(imagePath);
    if (!image) return fail("cannot read " + imagePath + ": " + std::strerror(errno));
    if (!isJpeg(*image))
        return fail(imagePath + ": not a JPEG image (it must start with FF D8 and end with FF D9)");
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    const std::vector<Problem> found = problemsOf(path);
    if (!found.empty()) return fail(path + ": " + found[0].kind + ": " + found[0].message + " (see yax check)");
    const auto head = slurpFile(path);
    if (head && head->size() >= 8 && head->compare(4, 4, "ftyp") == 0)
        return fail(path + ": an MP4 file has no image to replace");
    const int sig = signatureOf(path);
    if (hasLegacy(sig)) return fail(path + ": holds legacy audio; save an entry first to turn it into entries");
    if (!hasTrailer(sig)) return fail(path + ": holds no entries; there is nothing to keep behind a new image");
    const auto had = cpEntries(path);
    if (!had) return fail(path + ": the entries cannot be read");
    for (const CpEntry &e : *had)
        if (e.name != kFillerName && e.payload.empty())
            return fail(path + ": entry " + quoted(e.name) + " is empty and could not be kept");

    const auto copy = cpClone(path, path);
    if (!copy) return fail("cannot copy " + path + ": " + std::strerror(errno));
    int r;
    {
        LibraryQuiet quiet;
        r = FastChangeCoverData(copy->c_str(), image->data(), static_cast<uint32_t>(image->size()));
    }
    std::string wrong = r > 0 ? coverMismatch(*copy, *image, *had) : "the change failed";
    if (!wrong.empty()) {
        std::fprintf(stderr, "yax: %s: changing the image in place would not keep every entry (%s); "
                     "rebuilding the file instead\n", path.c_str(), wrong.c_str());
        wrong = rebuildWithCover(*copy, *image, *had) ? coverMismatch(*copy, *image, *had)
                                                      : "the entries could not be saved again";
    }
    if (!wrong.empty()) {
        unlink(copy->c_str());
        return fail(path + ": the new image was not put in (" + wrong + "); " + path + " is unchanged");
    }
    if (rename(copy->c_str(), path.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        unlink(copy->c_str());
        return fail("cannot replace " + path + ": " + why);
    }
    return kOk;
}
