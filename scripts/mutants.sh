#!/usr/bin/env bash
# Applies deliberate one-line faults to a copy of the tree, one at a time,
# and runs the native suite on each: every fault must make a test fail.
# Usage: scripts/mutants.sh [WORDS]    (prints one line per fault; with WORDS,
#        only the faults whose description contains them)
set -uo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
work="${TMPDIR:-/tmp}/yax-mutants"
mkdir -p "$work"  # its build directory is kept between runs
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$work" -mxf -  # fresh times: every changed file rebuilds

# file @ text @ replacement @ what the fault is
faults=(
  "container/delete.cpp@i >= info->meta_count ? \"index@i > info->meta_count ? \"index@multi delete: row index bound loosened"
  "container/detect.cpp@    _qfclose(fp);@    (void)fp;@detection by path: stream left open"
  "api/fast_save.cpp@    if (fp != nullptr) _qfclose(fp);@    (void)fp;@fast save from a payload file by path: stream left open"
  "api/save_common.hpp@return got > 0 && static_cast<uint32_t>(got) == source_.length;@return got > 0;@payload read into memory that comes up short accepted"
  "support/copy.cpp@    case CopyStop::kShortRead:@    case CopyStop::kShortRead: return static_cast<int>(length);@streamed payload read that comes up short accepted"
  "container/validate.cpp@        if (at != 0) {@        if (false) {@edits: a gap before the header accepted"
  "container/validate.cpp@            if (i != index && _getDataType@            if (false && _getDataType@fast delete: a filler that is not row 0 accepted"
  "container/validate.cpp@        if (e.length > e.offset) {@        if (false) {@edits: a block running into the header accepted"
  "vono/legacy.cpp@    if (info != nullptr && !yax::vonoSoundEditable(info, yax::blockStart(info), yax::kDeletePlainTag))@    if (false)@legacy delete: a sound start past its block accepted"
  "api/copy.cpp@                saveVonoToImageFile(dst, u->data, u->data_length, name, getStringLen(name));@                (void)dst;@copy: the sound of a source with legacy audio left out"
  "container/write.cpp@        writeCustomQDR(info, moved, 1, 0, 0);@        writeCustomQDR(info, moved, 0, 0, 0);@cover header, case 5: the moved rows left out"
  "api/query.cpp@    if (_qlseek64(in, pos, SEEK_SET) != pos) return -1;@    if (_qlseek64(in, pos + 1, SEEK_SET) != pos + 1) return -1;@streamed extraction one byte late"
  "container/validate.cpp@        if (fields > e.length) {@        if (false) {@edits: a name or sub-information read past its block accepted"
  "vono/sound_api.cpp@        if (len == 0) return named = found = false;@        (void)named;@sound copy: an empty listed name written as a block"
  "container/add.cpp@    if (grown >= info->header_offset) return true;@    return true;@add: a new trailer shorter than the old header and tail accepted"
  "container/add.cpp@                           kTailSize + after_tail;@                           kTailSize;@add: the legacy end record written back left out of the new trailer's length"
  "container/mp4.cpp@    if (end != start + length) {@    if (false) {@MP4 save: the box put around a trailer the save rebuilt"
)
status=0
for f in "${faults[@]}"; do
  IFS='@' read -r file from to what <<<"$f"
  [ -n "${1:-}" ] && [[ "$what" != *"$1"* ]] && continue
  cp "$root/$file" "$work/$file"
  if ! grep -qF -- "$from" "$work/$file"; then
    echo "mutant[$what]: text not found"; status=1; continue
  fi
  python3 - "$work/$file" "$from" "$to" <<'PY'
import sys
p, a, b = sys.argv[1:]
s = open(p).read()
open(p, "w").write(s.replace(a, b, 1))
PY
  if ! cmake -S "$work" -B "$work/build" -DCMAKE_BUILD_TYPE=Debug >/dev/null 2>&1 ||
     ! cmake --build "$work/build" -j "${YAX_JOBS:-2}" >"$work/build.log" 2>&1; then
    echo "mutant[$what]: build failed"; status=1
  elif (cd "$work/build" && ctest -j "${YAX_JOBS:-2}" --timeout 300 >"$work/ctest.log" 2>&1); then
    echo "mutant[$what]: SURVIVED (no test failed)"; status=1
  else
    # every test CTest lists as failed, whether it failed, aborted or timed out
    echo "mutant[$what]: caught by $(sed -n '/The following tests FAILED/,$p' "$work/ctest.log" | grep -cE '^[[:space:]]+[0-9]+ - ') failing tests"
  fi
  cp "$root/$file" "$work/$file"
done
exit $status
