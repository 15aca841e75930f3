#!/usr/bin/env bash
# Makes the films that the browser tests watch, in the folder named by the first argument. Their
# pictures say which quarter of a second they are: in the upper third stand ten fields, white for 1,
# black for 0, the quarter's binary digits from the lowest on.
set -euo pipefail
cd "$1"

make() { ffmpeg -nostdin -v error -y "$@"; }

# Long enough for a slow machine to be done with a film before it ends.
seconds=150
picture="testsrc2=size=480x270:rate=15:duration=$seconds,drawbox=0:0:480:90:black:fill"
for ((digit = 0; digit < 10; ++digit)); do
  picture+=",drawbox=$((digit * 48)):0:48:90:white:fill:enable='mod(floor((t+0.001)*4/$((1 << digit))),2)'"
done

# A cue in each ten seconds, at the third second of it.
cues() {
  local i
  for ((i = 0; i < seconds / 10; ++i)); do
    printf '%d\n00:%02d:%02d,000 --> 00:%02d:%02d,500\n%s %d\n\n' $((i + 1)) $((i / 6)) \
      $((i % 6 * 10 + 3)) $((i / 6)) $((i % 6 * 10 + 7)) "$1" "$i"
  done
}
cues Line >coded.en.srt
cues Zeile >track.srt

# Two audio tracks of different pitch, a subtitle inside and one beside.
make -f lavfi -i "$picture" -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds" \
  -f lavfi -i "sine=frequency=1760:sample_rate=48000:duration=$seconds" -i track.srt \
  -map 0:v -map 1:a -map 2:a -map 3:s -c:v libx264 -preset superfast -pix_fmt yuv420p -g 30 \
  -c:a aac -ac 2 -b:a 96k -c:s mov_text -metadata:s:a:0 language=eng -metadata:s:a:1 language=ger \
  -metadata:s:s:0 language=ger -movflags +faststart coded.mp4

# What no browser plays as it is.
make -i coded.mp4 -map 0:v -map 0:a:0 -t 60 -c:v mpeg4 -q:v 6 -c:a mp2 foreign.avi
rm track.srt

# Titles to search for, of no size.
for name in 'Alpine walk' 'Baltic sea' 'Baltic storm' 'City lights'; do
  make -f lavfi -i testsrc2=size=160x90:rate=10:duration=2 -c:v libx264 -preset ultrafast \
    -pix_fmt yuv420p "$name.mp4"
done
printf 'no video at all' >'Damaged film.mp4'
