#!/usr/bin/env bash
# Builds libYAX with the yax tool and shows the library's main job on the
# bundled sample image: store two entries, list them, get one back and compare,
# replace one, remove one, list again, check that the image still decodes, and
# copy the entries into a fresh copy of the original and put re-encoded images
# in front of them; then the same inside the
# bundled MP4 clip, checked with ffprobe, and sounds stored in the clip and in
# the photo.
# Environment: YAX_BUILD_ROOT (default <repo>/build), YAX_JOBS (default 2),
#              YAX_SKIP_DEPS=1 to skip the install check.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${YAX_BUILD_ROOT:-$root/build}/native"
jobs="${YAX_JOBS:-2}"

if [ "${YAX_SKIP_DEPS:-0}" != 1 ]; then
  bash "$root/scripts/deps.sh"
fi

mkdir -p "$build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DYAX_BUILD_TOOLS=ON >"$build.configure.log" 2>&1 \
  || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "$jobs" --target yax >/dev/null \
  || { echo "demo: building the yax tool failed" >&2; exit 1; }
bin="$build/tools/yax"
yax() { "$bin" "$@"; }

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cp "$root/tests/data/sample.jpg" "$work/photo.jpg"
cd "$work"

show() { echo "\$ $*"; "$@"; }
fail() { echo "demo: $1" >&2; exit 1; }

printf 'A quiet morning by the lake.\n' > caption.txt
printf 'camera=test;lens=50mm' > settings.txt
head -c 3000 /dev/urandom > blob.bin
echo "photo.jpg: $(wc -c < photo.jpg) bytes"

show yax put photo.jpg caption caption.txt
show yax put photo.jpg blob - --type 7 --sub-info settings.txt < blob.bin
show yax list photo.jpg

show yax get photo.jpg blob -o blob.out
cmp blob.bin blob.out || fail "the blob read back differs"
echo "blob read back byte for byte"
[ "$(yax get photo.jpg blob --sub-info)" = "camera=test;lens=50mm" ] || fail "the sub-information read back differs"
echo "sub-information read back"

printf 'An evening by the lake.\n' > caption2.txt
show yax put photo.jpg caption caption2.txt --replace
cmp caption2.txt <(yax get photo.jpg caption) || fail "the caption was not replaced"
echo "caption replaced"
show yax rm photo.jpg blob
show yax list photo.jpg --json
echo "photo.jpg: $(wc -c < photo.jpg) bytes"

djpeg photo.jpg > decoded.ppm || fail "djpeg cannot decode the edited image"
echo "djpeg still decodes the edited image: $(head -c 2 decoded.ppm) $(wc -c < decoded.ppm) bytes"

# ---- copy: the entries of the edited photo into a fresh copy of the original ----
cp "$root/tests/data/sample.jpg" fresh.jpg
show yax cp photo.jpg fresh.jpg
show yax list fresh.jpg
cmp <(yax get photo.jpg caption) <(yax get fresh.jpg caption) || fail "the copied caption differs"
echo "the copied caption reads back byte for byte"
# ---- end of copy ----

# ---- cover: a re-encoded image, smaller and then larger, in front of the entries ----
djpeg "$root/tests/data/sample.jpg" > original.ppm
cjpeg -quality 40 original.ppm > smaller.jpg
cjpeg -quality 100 original.ppm > larger.jpg
for new in smaller.jpg larger.jpg; do
  show yax cover fresh.jpg "$new"
  show yax list fresh.jpg
  cmp <(yax get photo.jpg caption) <(yax get fresh.jpg caption) || fail "the caption changed under $new"
  cmp <(djpeg fresh.jpg) <(djpeg "$new") || fail "fresh.jpg does not decode to the pixels of $new"
  echo "$new ($(wc -c < "$new") bytes) is in front: the caption reads back, djpeg gives its pixels"
done
# ---- end of cover ----

show yax clear photo.jpg
cmp photo.jpg "$root/tests/data/sample.jpg" || fail "after clear the image differs from the original"
echo "after clear the image is byte for byte the original"

# The same job inside an MP4 clip: the entries go into a "yaxd" box at its end,
# which players skip; the video's streams and duration read the same.
cp "$root/tests/data/sample.mp4" clip.mp4
probe() { ffprobe -v error -show_entries stream=codec_type,codec_name,width,height,nb_frames:format=duration -of compact clip.mp4; }
probe > probe.before
echo "clip.mp4: $(wc -c < clip.mp4) bytes"; cat probe.before
show yax put clip.mp4 caption caption.txt
show yax put clip.mp4 blob blob.bin
show yax list clip.mp4
cmp blob.bin <(yax get clip.mp4 blob) || fail "the blob read back from the clip differs"
echo "blob read back from the clip byte for byte"
probe | cmp - probe.before || fail "ffprobe reads the clip differently after the edits"
echo "ffprobe reads the same streams and duration"
# ---- sounds -------------------------------------------------------------
# A sound in the clip: ffprobe still reads the same streams and duration.
head -c 4000 /dev/urandom > sound.raw
show yax sound add clip.mp4 rain sound.raw
show yax list clip.mp4
cmp sound.raw <(yax sound get clip.mp4 rain) || fail "the sound read back from the clip differs"
probe | cmp - probe.before || fail "ffprobe reads the clip differently after the sound was added"
echo "sound read back from the clip; ffprobe reads the same streams and duration"
# Sounds in the photo: add two, read one back, remove one, clear the rest.
cp "$root/tests/data/sample.jpg" photo.jpg
printf 'second sound' > sound2.raw
show yax sound add photo.jpg rain sound.raw
show yax sound add photo.jpg wind sound2.raw
show yax list photo.jpg
cmp sound.raw <(yax sound get photo.jpg rain) || fail "the sound read back from the photo differs"
echo "sound read back from the photo byte for byte"
show yax sound rm photo.jpg rain
show yax list photo.jpg
djpeg photo.jpg | cmp - <(djpeg "$root/tests/data/sample.jpg") || fail "the photo decodes differently after the sound edits"
echo "djpeg decodes the photo to the same pixels"
show yax sound clear photo.jpg
cmp photo.jpg "$root/tests/data/sample.jpg" || fail "after sound clear the photo differs from the original"
echo "after sound clear the photo is byte for byte the original"
# ---- end of sounds ------------------------------------------------------
show yax clear clip.mp4
cmp clip.mp4 "$root/tests/data/sample.mp4" || fail "after clear the clip differs from the original"
echo "after clear the clip is byte for byte the original"
