#!/usr/bin/env bash
# Makes the media files that tests read, in the folder named by the first argument.
set -euo pipefail
cd "$1"

make() { ffmpeg -nostdin -v error -y "$@"; }

# Ten seconds of moving picture and a tone.
video=(-f lavfi -i testsrc2=size=640x360:rate=25:duration=10)
audio=(-f lavfi -i sine=frequency=440:sample_rate=48000:duration=10)
h264=(-c:v libx264 -preset ultrafast -g 50 -pix_fmt yuv420p)

make "${video[@]}" "${audio[@]}" "${h264[@]}" -c:a aac -ac 2 clip.mkv
make -i clip.mkv -c copy clip.mp4
