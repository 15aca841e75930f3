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

# Everything below is a second or less, and small: its shape matters, not its picture. The files are
# the same bytes at each run.
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact)
picture() { echo "testsrc2=size=${1}:rate=${2-25}:duration=${3-1}"; }
tone=(-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1)
small=(-f lavfi -i "$(picture 160x120)" "${tone[@]}")

# Ten containers.
make "${small[@]}" "${exact[@]}" "${h264[@]}" -c:a aac -ac 2 container.mkv
for name in mp4 ts mov flv; do
  make -i container.mkv "${exact[@]}" -c copy "container.$name"
done
make "${small[@]}" "${exact[@]}" -c:v mpeg4 -c:a mp2 container.avi
make "${small[@]}" "${exact[@]}" -c:v wmv2 -c:a wmav2 container.asf
make "${small[@]}" "${exact[@]}" -c:v libtheora -c:a libvorbis container.ogg
make "${small[@]}" "${exact[@]}" -c:v libvpx -deadline realtime -c:a libvorbis container.webm
make "${small[@]}" "${exact[@]}" -c:v mpeg2video -c:a mp2 container.mpg

# Frame rates.
for rate in 24000/1001 24 25 30000/1001 50 60; do
  make -f lavfi -i "$(picture 96x64 "$rate")" "${exact[@]}" "${h264[@]}" "rate-${rate/\//-}.mp4"
done

# Rotation, clockwise, kept as a display matrix. The option turns the other way round.
for degrees in 90 180 270; do
  make -i container.mp4 "${exact[@]}" -c copy -metadata:s:v "rotate=$((360 - degrees))" \
    "rotated-$degrees.mp4"
done

# Sample aspect ratios: landscape, wider landscape, portrait.
aspect() {
  make -f lavfi -i "$(picture "$2" 25 0.2),setsar=$3" "${exact[@]}" "${h264[@]}" "$1"
}
aspect aspect-16-15.mp4 720x576 16/15
aspect aspect-4-3.mkv 1440x1080 4/3
aspect aspect-portrait.mp4 576x720 15/16
make -i aspect-16-15.mp4 "${exact[@]}" -c copy -metadata:s:v rotate=270 aspect-rotated.mp4

# Other picture codecs.
make -f lavfi -i "$(picture 128x96 25 0.2)" "${exact[@]}" -c:v libx265 -preset ultrafast \
  -x265-params log-level=none -pix_fmt yuv420p10le hevc-10bit.mkv
make -f lavfi -i "$(picture 128x96 25 0.2)" "${exact[@]}" -c:v libaom-av1 -cpu-used 8 av1.mp4

# Several audio tracks and languages, text subtitles, an attachment.
printf '1\n00:00:00,000 --> 00:00:00,900\nHello\n' >subtitle.srt
printf 'not really a font' >attachment.ttf
languages=(-i container.mkv -f lavfi -i "sine=frequency=660:duration=1" -i subtitle.srt
  -map 0:v -map 0:a -map 1:a -map 1:a -map 2:s -map 2:s -c:v copy
  -c:a:0 copy -c:a:1 ac3 -c:a:2 aac
  -metadata:s:a:0 language=eng -metadata:s:a:1 language=ger -metadata:s:a:2 language=fre
  -metadata:s:s:0 language=eng -metadata:s:s:1 language=jpn
  -disposition:a 0 -disposition:a:1 default)
make "${languages[@]}" "${exact[@]}" -c:s srt -metadata:s:s:1 "title=Sign language & songs" \
  -attach attachment.ttf -metadata:s:t mimetype=application/x-truetype-font languages.mkv
make "${languages[@]}" "${exact[@]}" -c:s mov_text languages.mp4

# A time code (a data stream) between audio and video.
make -i container.mov -map 0 -c copy -timecode 00:00:00:00 timecode.mov
make -i timecode.mov -map 0:a -map 0:d -map 0:v "${exact[@]}" -c copy data-between.mov
make -i timecode.mov -map 0:d "${exact[@]}" -c copy data-only.mov
rm timecode.mov

# One kind of stream only; a picture as cover.
make -i container.mkv -map 0:v "${exact[@]}" -c copy video-only.mp4
make "${tone[@]}" "${exact[@]}" -c:a libmp3lame audio-only.mp3
make -f lavfi -i "$(picture 64x64 1)" -frames:v 1 cover.png
make -i audio-only.mp3 -i cover.png -map 0 -map 1 "${exact[@]}" -c copy \
  -disposition:v attached_pic cover.mp3

# Uncompressed audio, and channel layouts.
sound() { # NAME CHANNELS OPTIONS...
  local name=$1 channels=$2
  shift 2
  make -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=0.2" -ac "$channels" \
    "${exact[@]}" "$@" "$name"
}
for codec in pcm_s16le pcm_s24le pcm_u8 pcm_mulaw pcm_alaw pcm_f32le; do
  sound "$codec.wav" 2 -c:a "$codec"
done
sound pcm_s16be.mov 2 -c:a pcm_s16be
sound pcm_s8.aiff 2 -c:a pcm_s8 -f aiff
sound mono.mka 1 -c:a flac
sound surround.mka 6 -c:a aac
sound surround-side.mka 6 -c:a ac3
make "${tone[@]}" -af "pan=FL+FR+TC|c0=c0|c1=c0|c2=c0" "${exact[@]}" -c:a pcm_s16le odd-layout.wav
make -f s16le -ar 48000 -ac 3 -guess_layout_max 0 -t 0.1 -i /dev/zero "${exact[@]}" \
  -c:a pcm_s16le unknown-layout.wav

# Broken files.
head -c 20000 clip.mkv >truncated.mkv
head -c 20000 clip.mp4 >truncated.mp4
awk 'BEGIN { srand(1); for (i = 0; i < 20000; i++) printf "%c", 33 + int(rand() * 94) }' >garbage.mkv
: >empty.mkv
