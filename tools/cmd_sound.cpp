// yax sound: the sounds kept with a photo (TonePhoto entries and their name
// list, or a legacy audio block).
//
//   yax sound add   FILE NAME AUDIOFILE
//   yax sound get   FILE NAME [-o OUT]     (a legacy block's sound is audioN)
//   yax sound rm    FILE NAME
//   yax sound clear FILE
//
// Included by yax.cpp after its helpers (lock, quiet guard, contents, checks).
// A command's library edits form one edit (yaxBeginEdit): in the safe-edit
// mode the tool runs in, a step that fails puts the whole file back.
// Where a library call would lose something (a same-name entry that is not a
// sound, the other entries on a clear, the wrong name dropped from the list)
// the tool refuses or takes another way and says so on standard error. An
// MP4 file gets its sound and list through the MP4 save, which keeps the
// "yaxd" box sized, and no legacy end record.

namespace {

// The library edits of one command as one edit (yaxBeginEdit): in the
// safe-edit mode the file is put back unless the command keeps them.
class SoundEdit {
public:
    explicit SoundEdit(const std::string &path) {
        LibraryQuiet quiet;
        group_ = yaxBeginEdit(path.c_str());
    }
    ~SoundEdit() {
        if (group_ == nullptr) return;
        LibraryQuiet quiet;
        yaxEndEdit(group_, 0);
    }
    SoundEdit(const SoundEdit &) = delete;
    SoundEdit &operator=(const SoundEdit &) = delete;
    bool ready() const { return group_ != nullptr; }
    bool keep() {
        LibraryQuiet quiet;
        const int r = yaxEndEdit(group_, 1);
        group_ = nullptr;
        return r == 1;
    }

private:
    YaxEditGroup *group_ = nullptr;
};

std::string notPrepared(const std::string &path) {
    return path + ": the bytes this edit changes could not be saved first; nothing was changed";
}
std::string notKept(const std::string &path) {
    return path + ": a write of the edit failed; the file is as it was";
}

bool listed(const Contents &c, const std::string &name) {
    for (const std::string &n : c.tonePhoto)
        if (n == name) return true;
    return false;
}

void note(const std::string &path, const std::string &what) {
    std::fprintf(stderr, "yax: %s: %s\n", path.c_str(), what.c_str());
}

// The name list payload: 1, 0, N, the N lengths, the names.
std::vector<unsigned char> toneListPayload(const std::vector<std::string> &names) {
    std::vector<unsigned char> p;
    auto word = [&p](uint32_t v) {
        for (int i = 0; i < 4; ++i) p.push_back(static_cast<unsigned char>(v >> (8 * i)));
    };
    word(1), word(0), word(static_cast<uint32_t>(names.size()));
    for (const std::string &n : names) word(static_cast<uint32_t>(n.size()));
    for (const std::string &n : names) p.insert(p.end(), n.begin(), n.end());
    return p;
}

// One entry saved (replacing one of its name) the way the file takes it.
bool saveToneEntry(const std::string &path, const Contents &c, const std::string &name,
                   const std::vector<unsigned char> &data, uint32_t type) {
    LibraryQuiet quiet;
    const auto len = static_cast<uint32_t>(name.size());
    const auto size = static_cast<uint32_t>(data.size());
    if (!c.mp4) return saveYAXDataToFile(path.c_str(), name.c_str(), len, nullptr, 0, data.data(), size, type, 1) == 1;
    FILE *fp = std::fopen(path.c_str(), "r+b");
    if (fp == nullptr) return false;
    const int r = saveYAXDataToFPToMP4(fp, name.c_str(), len, nullptr, 0, data.data(), size, type, 1);
    return std::fclose(fp) == 0 && r == 1;
}

bool deleteByName(const std::string &path, const std::vector<std::string> &names) {
    LibraryQuiet quiet;
    YAXDATA *handle = checkYAXInFile(path.c_str());
    bool ok = handle != nullptr;
    for (const std::string &n : names)
        if (ok && handle != nullptr)
            ok = deleteYAXDataFromFilebyName(&handle, n.c_str(), static_cast<int>(n.size())) == 1;
    destroyYAXDATA(handle);
    return ok;
}

// After a sound edit: the other entries are all there, `gone` is gone, the
// list holds exactly `want` and every listed sound has its entry.
std::optional<std::string> verifySounds(const std::string &path, const Contents &before,
                                        const std::set<std::string> &gone, const std::string &added,
                                        const std::vector<std::string> &want) {
    if (auto why = verifyEdit(path, before, gone, added, nullptr)) return why;
    Contents after;
    if (auto why = readContents(path, after)) return *why;
    if (after.tonePhoto != want) return "the name list is not as expected";
    for (const std::string &n : want)
        if (findEntry(after, n) == nullptr) return "sound " + quoted(n) + " has no entry";
    return std::nullopt;
}

std::vector<std::string> without(std::vector<std::string> names, const std::string &name) {
    names.erase(std::remove(names.begin(), names.end(), name), names.end());
    return names;
}

// The legacy end record behind a trailer is moved by the library's delete
// rule (by the deleted block whenever that lies in front of a
// "TonePhoto_000" entry, or always when there is none), which can leave it
// pointing into other bytes. Older readers would take those for the sound:
// the record's 30 bytes are written again, in place, pointing at the first
// listed sound.
int reaimLegacy(const std::string &path, const std::vector<std::string> &listedNames) {
    Contents after;
    if (auto why = readContents(path, after)) return unverified(path, *why);
    if (after.legacyUnreadable) return unverified(path, "the legacy audio record cannot be read");
    if (after.signature != SIGNATURE_VONO_YAX || after.legacy.empty() || listedNames.empty()) return kOk;
    const Entry *first = nullptr;
    for (const std::string &n : listedNames) {
        const Entry *e = findEntry(after, n);
        if (e != nullptr && e->readable && e->offset == after.legacy[0].offset && e->length == after.legacy[0].length)
            return kOk;
        if (first == nullptr && e != nullptr && e->readable) first = e;
    }
    if (first == nullptr || first->offset + first->length > int64_t{UINT32_MAX}) return kOk;
    FILE *fp = std::fopen(path.c_str(), "r+b");
    unsigned char head[4] = {};
    const off_t end = fp != nullptr ? lseek(fileno(fp), 0, SEEK_END) : -1;
    bool ok = end >= 30 && pread(fileno(fp), head, 4, end - 30) == 4 && std::memcmp(head, "VONO", 4) == 0 &&
              lseek(fileno(fp), end - 30, SEEK_SET) == end - 30;
    if (ok) {
        LibraryQuiet quiet;
        ok = _writeVonoHeader(fp, static_cast<uint32_t>(first->offset),
                              static_cast<uint32_t>(first->offset + first->length)) == 1 &&
             fsync(fileno(fp)) == 0;
    }
    if (fp != nullptr) std::fclose(fp);
    if (!ok) return fail(path + ": the legacy audio record points elsewhere than at a sound and could not be set right");
    note(path, "the legacy audio record pointed elsewhere than at a sound; it now points at " + quoted(first->name));
    return kOk;
}

int cmdSoundAdd(const std::string &path, const std::string &name, const std::string &audioPath) {
    if (name.empty()) return fail("the sound name is empty");
    if (name.size() > kMaxNameLength)
        return fail("the sound name is longer than " + std::to_string(kMaxNameLength) + " bytes");
    if (name == kToneListName || name == kFillerName) return fail(quoted(name) + " is reserved; pick another");
    std::vector<unsigned char> audio;
    if (auto why = readInput(audioPath, audio)) return fail(*why);
    if (audio.empty()) return fail("the sound is empty");
    if (audio.size() > kMaxPayload) return fail("the sound is too big to store");

    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    if (c.legacyUnreadable) return fail(path + ": the legacy audio block is damaged and cannot be read");
    if (c.mp4 && hasLegacy(c.signature))
        return fail(path + ": the MP4 file ends in a legacy audio block, which its save cannot extend");
    if (c.signature == SIGNATURE_VONO && !c.legacy.empty() && name == "TonePhoto_000")
        return fail(path + ": the legacy sound becomes 'TonePhoto_000' as it is converted; pick another name");
    const Entry *same = findEntry(c, name);
    // (an unlisted sound entry, as an interrupted add leaves it, may be replaced)
    if (same != nullptr && same->kind != "tonephoto-sound" && same->type != YAX_TONEPHOTO_SOUND_TYPE)
        return fail(path + ": an entry named " + quoted(name) + " exists and is not a sound; remove it first");
    const bool hasList = findEntry(c, kToneListName) != nullptr;
    // The library's own save, where it keeps the list: a plain image, a legacy
    // block, a trailer without a list, a trailer with a list and end record.
    const bool library = !c.mp4 && (c.signature == SIGNATURE_NONE || c.signature == SIGNATURE_VONO ||
                                    (c.signature == SIGNATURE_YAX && !hasList) ||
                                    (c.signature == SIGNATURE_VONO_YAX && hasList));
    std::vector<std::string> want = c.tonePhoto;
    if (!listed(c, name)) want.push_back(name);
    SoundEdit edit(path);
    if (!edit.ready()) return fail(notPrepared(path));
    bool ok;
    if (library) {
        LibraryQuiet quiet;
        ok = saveVonoToImageFile(path.c_str(), audio.data(), static_cast<uint32_t>(audio.size()), name.c_str(),
                                 static_cast<uint32_t>(name.size())) == 1;
    } else {
        if (!c.mp4) note(path, "the sound and its name list are saved as entries (a second list would hide this one)");
        ok = saveToneEntry(path, c, name, audio, YAX_TONEPHOTO_SOUND_TYPE) &&
             saveToneEntry(path, c, kToneListName, toneListPayload(want), YAX_TONEPHOTO_META_TYPE);
    }
    if (!ok) return fail(path + ": storing the sound " + quoted(name) + " failed");
    refreshBox(path, c);
    // A legacy sound becomes "TonePhoto_000"; a legacy block without one
    // leaves a list naming "TonePhoto_000" for the caller's sound: set right.
    Contents after;
    if (auto why = readContents(path, after)) return unverified(path, *why);
    if (c.signature == SIGNATURE_VONO) {
        want.clear();
        for (const std::string &n : after.tonePhoto)
            if (findEntry(after, n) != nullptr) want.push_back(n);
        if (!listed(after, name)) want.push_back(name);
        if (want != after.tonePhoto) {
            note(path, "the name list named a sound that is not stored; listing " + quoted(name) + " instead");
            if (!saveToneEntry(path, after, kToneListName, toneListPayload(want), YAX_TONEPHOTO_META_TYPE))
                return fail(path + ": storing the name list failed");
        }
    }
    if (auto why = verifySounds(path, c, {}, name, want)) return unverified(path, *why);
    const Entry *e = nullptr;
    Contents check;
    if (!readContents(path, check)) e = findEntry(check, name);
    std::vector<unsigned char> back(audio.size());
    bool whole = e != nullptr && e->readable && e->length == static_cast<int64_t>(audio.size());
    if (whole) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        whole = fd >= 0 && pread(fd, back.data(), back.size(), e->offset) == static_cast<ssize_t>(back.size()) &&
                back == audio;
        if (fd >= 0) close(fd);
    }
    if (!whole) return unverified(path, "the sound does not read back as stored");
    return edit.keep() ? kOk : fail(notKept(path));
}

int cmdSoundGet(const std::string &path, const std::string &name, const std::string &outPath) {
    Contents c;
    {
        FileLock lock;
        if (auto why = lock.acquire(path)) return fail(*why);
        if (auto why = readContents(path, c)) return fail(*why);
    }
    if (listed(c, name)) return cmdGet(path, name, outPath, false);
    for (const Sound &s : c.legacy) {
        if (name != "audio" + std::to_string(s.index)) continue;
        std::vector<unsigned char> bytes;
        bool read = s.offset > 0 && s.length > 0 && s.offset + s.length <= int64_t{UINT32_MAX};
        if (read) {
            LibraryQuiet quiet;
            bytes.resize(static_cast<size_t>(s.length));
            FILE *fp = std::fopen(path.c_str(), "rb");
            struct stat st {};
            read = fp != nullptr && fstat(fileno(fp), &st) == 0 && s.offset + s.length <= st.st_size &&
                   ReadSoundData(fp, static_cast<uint32_t>(s.offset), static_cast<uint32_t>(s.length),
                                 bytes.data()) == 1;
            if (fp != nullptr) std::fclose(fp);
        }
        if (!read) return fail(path + ": " + name + " lies outside the file and cannot be read");
        return writeOutput(outPath, [&](FILE *out) -> std::optional<std::string> {
            std::fflush(out);
            if (!writeAll(out, bytes.data(), bytes.size()) || std::fflush(out) != 0)
                return std::string("cannot write the output: ") + std::strerror(errno);
            return std::nullopt;
        });
    }
    return fail(path + ": no sound named " + quoted(name));
}

int cmdSoundRm(const std::string &path, const std::string &name) {
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    if (c.legacyUnreadable) return fail(path + ": the legacy audio block is damaged and cannot be read");
    const bool legacySound = c.signature == SIGNATURE_VONO && !c.legacy.empty() && name == "audio0";
    if (!legacySound && !listed(c, name)) return fail(path + ": no sound named " + quoted(name));
    SoundEdit edit(path);
    if (!edit.ready()) return fail(notPrepared(path));
    if (legacySound) {
        {
            LibraryQuiet quiet;
            deleteVonoFromImageFile(path.c_str(), name.c_str());
        }
        if (signatureOf(path) != SIGNATURE_NONE) return fail(path + ": removing the legacy sound failed");
        return edit.keep() ? kOk : fail(notKept(path));
    }
    const std::vector<std::string> want = without(c.tonePhoto, name);
    if (findEntry(c, name) == nullptr) {
        // Listed without an entry (an add that stopped part way): only the list changes.
        note(path, quoted(name) + " is listed but not stored; taking it off the name list");
        const bool ok = want.empty() ? deleteByName(path, {kToneListName})
                                     : saveToneEntry(path, c, kToneListName, toneListPayload(want),
                                                     YAX_TONEPHOTO_META_TYPE);
        if (!ok) return fail(path + ": rewriting the name list failed");
        refreshBox(path, c);
        std::set<std::string> listOnly;
        if (want.empty()) listOnly.insert(kToneListName);
        if (auto why = verifySounds(path, c, listOnly, "", want)) return unverified(path, *why);
        return edit.keep() ? kOk : fail(notKept(path));
    }
    std::set<std::string> gone{name};
    if (want.empty()) gone.insert(kToneListName);
    bool ok;
    if (!c.mp4 && c.signature == SIGNATURE_VONO_YAX) {
        // The library's delete drops the list's last name, whichever sound goes.
        if (c.tonePhoto.back() != name) {
            note(path, "moving " + quoted(name) + " to the end of the name list first (the delete drops the last name)");
            std::vector<std::string> moved = want;
            moved.push_back(name);
            if (!saveToneEntry(path, c, kToneListName, toneListPayload(moved), YAX_TONEPHOTO_META_TYPE))
                return fail(path + ": rewriting the name list failed");
        }
        LibraryQuiet quiet;
        ok = deleteVonoFromImageFile(path.c_str(), name.c_str()) == 1;
    } else if (want.empty()) {
        ok = deleteByName(path, {name, kToneListName});
    } else {
        ok = saveToneEntry(path, c, kToneListName, toneListPayload(want), YAX_TONEPHOTO_META_TYPE) &&
             deleteByName(path, {name});
    }
    if (!ok) return fail(path + ": removing the sound " + quoted(name) + " failed");
    refreshBox(path, c);
    if (auto why = verifySounds(path, c, gone, "", want)) return unverified(path, *why);
    if (const int r = reaimLegacy(path, want); r != kOk) return r;
    return edit.keep() ? kOk : fail(notKept(path));
}

int cmdSoundClear(const std::string &path) {
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    if (c.legacyUnreadable) return fail(path + ": the legacy audio block is damaged and cannot be read");
    if (c.signature == SIGNATURE_VONO) {
        SoundEdit edit(path);
        if (!edit.ready()) return fail(notPrepared(path));
        {
            LibraryQuiet quiet;
            deleteAVono(path.c_str());
        }
        if (signatureOf(path) != SIGNATURE_NONE) return fail(path + ": removing the legacy sound failed");
        return edit.keep() ? kOk : fail(notKept(path));
    }
    std::set<std::string> gone;
    std::vector<std::string> doomed;
    for (const std::string &n : c.tonePhoto)
        if (findEntry(c, n) != nullptr && gone.insert(n).second) doomed.push_back(n);
    if (findEntry(c, kToneListName) != nullptr) gone.insert(kToneListName), doomed.push_back(kToneListName);
    if (doomed.empty()) return kOk;
    bool others = false;
    for (const Entry &e : c.entries) others = others || (e.kind != "filler" && gone.count(e.name) == 0);
    SoundEdit edit(path);
    if (!edit.ready()) return fail(notPrepared(path));
    bool ok;
    if (!others) {
        // Nothing but sounds (and filler): the bare image or video comes back.
        LibraryQuiet quiet;
        ok = (!c.mp4 && c.signature == SIGNATURE_VONO_YAX ? deleteAllVonoFromImageFile(path.c_str())
                                                          : deleteAllDataFromFile(path.c_str())) == 1;
    } else {
        // One rewrite of the other entries; it drops a legacy end record,
        // which has no sound left to point at.
        if (!c.mp4) note(path, "removing the sounds and their list, keeping the other entries");
        LibraryQuiet quiet;
        YAXDATA *handle = checkYAXInFile(path.c_str());
        std::vector<const char *> names;
        for (const std::string &n : doomed) names.push_back(n.c_str());
        ok = handle != nullptr;
        if (ok) deleteYAXMultiDataFromFilebyName(&handle, names.data(), static_cast<uint32_t>(names.size()));
        destroyYAXDATA(handle);
    }
    if (!ok) return fail(path + ": removing the sounds failed");
    refreshBox(path, c);
    if (auto why = verifySounds(path, c, gone, "", {})) return unverified(path, *why);
    return edit.keep() ? kOk : fail(notKept(path));
}

// The "sound" command and its four subcommands.
struct SoundCommands {
    CLI::App *sound, *add, *get, *rm, *clear;
    std::string file, name, audio, out;

    explicit SoundCommands(CLI::App &app) {
        sound = app.add_subcommand("sound", "Add, extract and remove the sounds kept with FILE.");
        sound->require_subcommand(1);
        add = sound->add_subcommand("add", "Store AUDIOFILE as sound NAME (replacing a sound of that name).");
        add->add_option("FILE", file, "Image or video file, edited in place")->required();
        add->add_option("NAME", name, "Sound name")->required();
        add->add_option("AUDIOFILE", audio, "Sound file, or - for standard input")->required();
        get = sound->add_subcommand("get", "Write sound NAME (audioN for a legacy block's sound).");
        get->add_option("FILE", file, "Image or video file")->required();
        get->add_option("NAME", name, "Sound name")->required();
        get->add_option("-o,--output", out, "Write to OUT instead of standard output");
        rm = sound->add_subcommand("rm", "Remove sound NAME and its place in the name list.");
        rm->add_option("FILE", file, "Image or video file, edited in place")->required();
        rm->add_option("NAME", name, "Sound name")->required();
        clear = sound->add_subcommand("clear", "Remove every sound and the name list; other entries stay.");
        clear->add_option("FILE", file, "Image or video file, edited in place")->required();
    }
    // The command's exit status, or nothing when "sound" was not given.
    std::optional<int> run() const {
        if (!sound->parsed()) return std::nullopt;
        if (add->parsed()) return cmdSoundAdd(file, name, audio);
        if (get->parsed()) return cmdSoundGet(file, name, out);
        if (rm->parsed()) return cmdSoundRm(file, name);
        return cmdSoundClear(file);
    }
};

}  // namespace
