#!/usr/bin/env bash
# Makes a small library of videos, one for each way in which a browser gets to see a file.
#
#   packaging/sample-library.sh DIR
#
# DIR appears whole or not at all. One that holds something already is left as it is.
set -euo pipefail

if (($# != 1)) || [[ -z $1 || $1 == -* ]]; then
  sed -n '2,6s/^# \{0,1\}//p' "$0" >&2
  exit 2
fi
target=$1
[[ $target == /* ]] || target=$PWD/$target
while [[ $target == */ && $target != / ]]; do target=${target%/}; done
if [[ -e $target && ! -d $target ]]; then
  echo "sample-library: $1 is no folder" >&2
  exit 1
fi

holds_something() { [[ -n $(ls -A -- "$target" 2>/dev/null) ]]; }
if holds_something; then exit 0; fi

mkdir -p -- "${target%/*}/"
part=$(mktemp -d -- "$target.part.XXXXXX")
trap 'rm -rf -- "$part"' EXIT
chmod 755 -- "$part"
cd -- "$part"

make() { ffmpeg -nostdin -v error -y "$@"; }
picture() { echo "testsrc2=size=$1:rate=$2:duration=$3"; }  # with a clock in it
tone() { echo "sine=frequency=$1:beep_factor=4:sample_rate=48000:duration=$2"; }
h264=(-c:v libx264 -preset superfast -crf 32 -pix_fmt yuv420p -g 50)

# What browsers play as it is.
make -f lavfi -i "$(picture 1280x720 25 40)" -f lavfi -i "$(tone 440 40)" "${h264[@]}" -c:a aac \
  -ac 2 -movflags faststart "Plays as it is.mp4"

# The same picture with two languages and subtitles, inside and beside.
subtitles() { # TEXT
  local i
  for ((i = 0; i < 8; ++i)); do
    printf '%d\n00:00:%02d,000 --> 00:00:%02d,500\n%s %d\n\n' \
      $((i + 1)) $((i * 5)) $((i * 5 + 3)) "$1" $((i * 5))
  done
}
subtitles "This is second" >english.srt
subtitles "Das ist Sekunde" >german.srt
make -i "Plays as it is.mp4" -f lavfi -i "$(tone 660 40)" -i english.srt -i german.srt \
  -map 0:v -map 0:a -map 1:a -map 2 -map 3 -c:v copy -c:a:0 copy -c:a:1 ac3 -ac:a:1 2 -c:s srt \
  -metadata:s:a:0 language=eng -metadata:s:a:1 language=deu -metadata:s:s:0 language=eng \
  -metadata:s:s:1 language=deu -disposition:a 0 -disposition:a:0 default -disposition:s 0 \
  "Two languages.mkv"
rm english.srt german.srt
subtitles "Voici la seconde" >"Two languages.fra.srt"

# A picture that only has to be copied, and sound that has to be encoded.
make -f lavfi -i "$(picture 1024x576 25 30)" -f lavfi -i "$(tone 440 30)" "${h264[@]}" -c:a ac3 \
  -f mpegts "Broadcast recording.ts"

# What has to be encoded.
make -f lavfi -i "$(picture 640x480 25 30)" -f lavfi -i "$(tone 440 30)" -c:v mpeg4 -q:v 9 -g 50 \
  -c:a libmp3lame "Old camera.avi"
make -f lavfi -i "$(picture 854x480 25 20)" -f lavfi -i "$(tone 440 20)" -c:v libx265 \
  -preset ultrafast -x265-params log-level=none:keyint=50 -pix_fmt yuv420p10le -c:a aac -ac 2 \
  "Ten bits (HEVC).mkv"
make -f lavfi -i "$(picture 960x540 12 20),scale=3840:2160:flags=neighbor" \
  -f lavfi -i "$(tone 440 20)" -c:v libx264 -preset ultrafast -crf 34 -pix_fmt yuv420p -g 24 \
  -c:a aac -ac 2 "Ultra HD.mkv"

# Open formats.
make -f lavfi -i "$(picture 640x360 25 20)" -f lavfi -i "$(tone 440 20)" -c:v libvpx-vp9 \
  -deadline realtime -cpu-used 8 -row-mt 1 -b:v 600k -g 50 -c:a libopus "Open formats.webm"

# A telephone that was held upright: the picture lies on its side, and the file says so.
make -f lavfi -i "$(picture 720x1280 25 20),transpose=cclock" -f lavfi -i "$(tone 440 20)" \
  "${h264[@]}" -c:a aac -ac 2 lying.mp4
make -i lying.mp4 -c copy -metadata:s:v rotate=270 -movflags faststart "Telephone, turned.mp4"
rm lying.mp4

# Folders.
mkdir -p "Series/Season 1"
for episode in 1 2; do
  make -ss $((episode * 20 - 20)) -i "Plays as it is.mp4" -t 20 -c copy \
    "Series/Season 1/The.clock_episode.$episode.mkv"
done

if ! mv -T -- "$part" "$target" 2>/dev/null; then
  # Somebody else made it meanwhile.
  holds_something || { echo "sample-library: $target cannot be made" >&2; exit 1; }
fi
