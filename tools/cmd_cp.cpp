// yax cp SRC DST [--name NAME | --type N]: the entries of one file into
// another. Included by yax.cpp inside its private namespace: it uses the
// tool's own checks, lock and messages.
//
// The copy runs on private copies of both files in DST's folder, and the
// new DST takes the old one's place only after it was checked, so a failed
// or refused copy leaves DST (and SRC) as they were. The library's copy
// turns a source's legacy audio into entries inside the source itself: the
// private copy takes that, and the tool says so. Where the library would
// copy nothing or only a sound but report success (legacy audio into a file
// with entries), the tool refuses before anything is done.

struct CpEntry {
    std::string name, payload, sub;
    uint32_t type = 0;
};

// Every entry the library lists, with its payload; nullopt when a trailer is
// there but cannot be listed.
std::optional<std::vector<CpEntry>> cpEntries(const std::string &path) {
    LibraryQuiet quiet;
    std::vector<CpEntry> out;
    if (!hasTrailer(getSignature(path.c_str()))) return out;
    YAXDATA *d = checkYAXWithReadPM(path.c_str());
    if (d == nullptr) return std::nullopt;
    for (uint32_t i = 0; i < d->count; ++i) {
        CpEntry e;
        e.name = d->YAX_name_list[i] != nullptr ? d->YAX_name_list[i] : "";
        if (YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, i)) {
            e.type = u->data_type;
            if (u->data != nullptr) e.payload.assign(reinterpret_cast<char *>(u->data), u->data_length);
            if (u->sub_info != nullptr) e.sub.assign(reinterpret_cast<char *>(u->sub_info), u->sub_info_length);
            destroyYAXDATA_UNIT(u);
        }
        out.push_back(std::move(e));
    }
    destroyYAXDATA(d);
    return out;
}

// A private copy of `path` beside `near`, or nothing (errno set).
std::optional<std::string> cpClone(const std::string &path, const std::string &near) {
    std::string name = folderOf(near) + "/.yax-cp.XXXXXX";
    const int out = mkostemp(name.data(), O_CLOEXEC);
    if (out < 0) return std::nullopt;
    const int in = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    bool ok = in >= 0;
    std::vector<unsigned char> chunk(kChunk);
    ssize_t n = 0;
    while (ok && ((n = read(in, chunk.data(), chunk.size())) > 0 || (n < 0 && errno == EINTR))) {
        if (n > 0 && write(out, chunk.data(), static_cast<size_t>(n)) != n) ok = false;
    }
    struct stat st {};
    if (ok && n == 0 && fstat(in, &st) == 0) ok = fchmod(out, st.st_mode & 07777) == 0;
    else ok = false;
    if (in >= 0) close(in);
    if (close(out) != 0) ok = false;
    if (!ok) {
        unlink(name.c_str());
        return std::nullopt;
    }
    return name;
}

int cmdCp(const std::string &src, const std::string &dst, const std::string &name, int64_t type) {
    if (auto why = unusable(src, false)) return fail(*why);
    if (auto why = unusable(dst, true)) return fail(*why);
    struct stat a {}, b {};
    if (stat(src.c_str(), &a) == 0 && stat(dst.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
        a.st_ino == b.st_ino)
        return fail(src + " and " + dst + " are the same file");
    // Both locks, always in the same order, so two crossed copies cannot
    // wait for each other.
    FileLock first, second;
    const bool srcFirst = src < dst;
    if (auto why = first.acquire(srcFirst ? src : dst)) return fail(*why);
    if (auto why = second.acquire(srcFirst ? dst : src)) return fail(*why);
    for (const std::string &p : {src, dst}) {
        const std::vector<Problem> found = problemsOf(p);
        if (!found.empty()) return fail(p + ": " + found[0].kind + ": " + found[0].message + " (see yax check)");
    }
    const auto from = cpEntries(src), had = cpEntries(dst);
    if (!from) return fail(src + ": the entries cannot be read");
    if (!had) return fail(dst + ": the entries cannot be read");
    const int srcSig = signatureOf(src), dstSig = signatureOf(dst);
    const bool picked = !name.empty() || type >= 0;
    if (picked && dstSig != SIGNATURE_NONE)
        return fail(dst + ": --name and --type copy only into a file without entries or legacy audio");

    // What should arrive, and what DST keeps instead.
    std::vector<std::string> wanted;
    for (const CpEntry &e : *from) {
        if (!name.empty() && e.name != name) continue;
        if (type >= 0 && e.type != static_cast<uint32_t>(type)) continue;
        if (!name.empty() && !wanted.empty()) break;
        bool clash = false;
        for (const CpEntry &h : *had) clash = clash || h.name == e.name;
        if (clash)
            std::fprintf(stderr, "yax: %s already has an entry named %s; it is kept and not copied\n",
                         dst.c_str(), quoted(e.name).c_str());
        else
            wanted.push_back(e.name);
    }
    if (!name.empty() && wanted.empty() && hasTrailer(srcSig)) {
        bool there = false;
        for (const CpEntry &e : *from) there = there || e.name == name;
        if (!there) return fail(src + ": no entry named " + quoted(name));
    }
    if (!hasTrailer(srcSig) && srcSig != SIGNATURE_VONO) return fail(src + ": holds no entries to copy");
    // Into a file with entries the library only converts a legacy-only
    // source, and of a source with legacy audio and entries it copies the
    // sound alone: refused rather than half done.
    if (hasLegacy(srcSig) && dstSig != SIGNATURE_NONE)
        return fail(src + " holds legacy audio, which cannot be copied into a file that already has "
                    "entries or legacy audio; copy it into a file without them");

    const auto srcCopy = cpClone(src, dst);
    if (!srcCopy) return fail("cannot copy " + src + ": " + std::strerror(errno));
    const auto dstCopy = cpClone(dst, dst);
    if (!dstCopy) {
        unlink(srcCopy->c_str());
        return fail("cannot copy " + dst + ": " + std::strerror(errno));
    }
    auto cleanup = [&] {
        unlink(srcCopy->c_str());
        unlink(dstCopy->c_str());
    };
    if (srcSig == SIGNATURE_VONO || srcSig == SIGNATURE_VONO_YAX)
        std::fprintf(stderr, "yax: %s holds legacy audio; it is turned into entries on a private copy, %s is not changed\n",
                     src.c_str(), src.c_str());
    int r;
    {
        LibraryQuiet quiet;
        const char *s = srcCopy->c_str(), *d = dstCopy->c_str();
        if (!name.empty()) r = copyYAXDataKeyName(s, d, name.c_str());
        else if (type >= 0) r = copyYAXDataType(s, d, static_cast<uint32_t>(type));
        else r = copyYAXData(s, d);
    }
    if (r != 1) {
        cleanup();
        return fail("the copy from " + src + " into " + dst + " failed; " + dst + " is unchanged");
    }
    // Check before DST is replaced: every old entry is still there with its
    // content, every wanted name arrived.
    const auto now = cpEntries(*dstCopy);
    std::string lost;
    if (!now) lost = "the result cannot be read";
    for (const CpEntry &h : now ? *had : std::vector<CpEntry>{}) {
        bool kept = false;
        for (const CpEntry &e : *now) kept = kept || (e.name == h.name && e.payload == h.payload);
        if (!kept && lost.empty()) lost = "entry " + quoted(h.name) + " would be lost";
    }
    for (const std::string &w : now ? wanted : std::vector<std::string>{}) {
        bool there = false;
        for (const CpEntry &e : *now) there = there || e.name == w;
        if (!there && lost.empty()) lost = "entry " + quoted(w) + " did not arrive";
    }
    if (lost.empty() && !problemsOf(*dstCopy).empty()) lost = "the result does not pass yax check";
    if (!lost.empty()) {
        cleanup();
        return fail(dst + ": the copy was not kept (" + lost + "); " + dst + " is unchanged");
    }
    if (rename(dstCopy->c_str(), dst.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        cleanup();
        return fail("cannot replace " + dst + ": " + why);
    }
    unlink(srcCopy->c_str());
    return kOk;
}
