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

# Three minutes with subtitles: a cue every ten seconds, one that stays for 90, one of styled text.
# The copies begin at 7 s.
subtitles() { # [with-long]
  local i
  printf '1\n00:00:01,000 --> 00:00:03,500\n<b>Bold</b> & <i>italic</i>\nsecond line\n\n'
  for ((i = 1; i < 18; ++i)); do
    printf '1\n00:%02d:%02d,250 --> 00:%02d:%02d,750\nCue %d\n\n' \
      $((i / 6)) $((i % 6 * 10)) $((i / 6)) $((i % 6 * 10 + 3)) "$i"
    [[ $i-${1-} != 3-with-long ]] || printf '1\n00:00:35,000 --> 00:02:05,000\nA long one\n\n'
  done
}
subtitles with-long >subtitled.srt
subtitled=(-f lavfi -i "$(picture 96x64 5 180)" -f lavfi -i sine=frequency=440:duration=180
  -i subtitled.srt -map 0 -map 1 -map 2 -map 2 "${h264[@]}" -g 25 -c:a aac -b:a 32k)
make "${subtitled[@]}" "${exact[@]}" -c:s:0 srt -c:s:1 ass subtitled.mkv
# Samples of one MP4 text track never overlap, so the long cue has no place there.
subtitles >subtitled-mp4.srt
make -i subtitled.mkv -i subtitled-mp4.srt -map 0:v -map 0:a -map 1 "${exact[@]}" -c copy \
  -c:s mov_text subtitled.mp4
for name in mkv mp4; do
  make -i "subtitled.$name" -map 0 "${exact[@]}" -c copy -output_ts_offset 7 "subtitled-late.$name"
done

# Keyframes. At irregular distances, with B-frames: pictures are not stored in their order.
irregular=(-c:v libx264 -preset veryfast -g 999 -keyint_min 1 -sc_threshold 0 -bf 3 -b_strategy 0
  -threads 1 -force_key_frames 0,0.52,3,3.04,7,11,12,18,26,30 -pix_fmt yuv420p)
make -f lavfi -i "$(picture 96x64 25 34)" -f lavfi -i sine=duration=34 "${exact[@]}" \
  "${irregular[@]}" -c:a aac -b:a 32k keyframes.mkv
copy() { # NAME OPTIONS...: keyframes.mkv in another container
  local name=$1
  shift
  make -i keyframes.mkv -map 0 -c copy "${exact[@]}" "$@" "keyframes-$name"
}
for name in mp4.mp4 mov.mov flv.flv ts.ts; do copy "$name"; done
copy front.mkv -cues_to_front 1 -reserve_index_space 10k
copy live.mkv -live 1
copy fragments.mp4 -movflags frag_keyframe+empty_moov
copy hybrid.mp4 -movflags frag_keyframe
copy front.mp4 -movflags faststart
copy ctts.mp4 -movflags negative_cts_offsets
copy ten-hours.ts -output_ts_offset 36000
copy ten-hours.mkv -output_ts_offset 36000
make -itsoffset 3 -i keyframes.mkv -c copy "${exact[@]}" keyframes-late.mp4
# Cut behind a keyframe: an edit list leaves out what comes before.
make -ss 4.5 -i keyframes.mkv -c copy "${exact[@]}" keyframes-edit.mp4
make -ss 4.5 -i keyframes.mkv -c copy "${exact[@]}" -avoid_negative_ts 0 keyframes-negative.mp4

gop() { # NAME RATE SECONDS OPTIONS...
  local name=$1 rate=$2 seconds=$3
  shift 3
  make -f lavfi -i "$(picture 96x64 "$rate" "$seconds")" "${exact[@]}" -threads 1 \
    -pix_fmt yuv420p "$@" "keyframes-$name"
}
x264=(-c:v libx264 -preset veryfast)
gop no-b.mp4 25 8 "${x264[@]}" -bf 0 -g 30
gop ntsc.mp4 30000/1001 8 "${x264[@]}" -g 30
gop ntsc.ts 30000/1001 8 "${x264[@]}" -g 30
gop film.mkv 24000/1001 8 "${x264[@]}" -g 24
gop intra.mp4 25 2 "${x264[@]}" -g 1
gop many.mkv 25 40 "${x264[@]}" -g 10
gop one.mp4 25 3 "${x264[@]}" -g 999
# Keyframes that pictures before them refer to: recovery points, no IDR pictures.
gop open.mkv 25 12 "${x264[@]}" -g 25 -bf 3 -flags -cgop -x264-params open-gop=1:scenecut=0
for name in open.mp4 open.ts open.mov; do
  make -i keyframes-open.mkv "${exact[@]}" -c copy "keyframes-$name"
done
gop hevc.mp4 25 4 -c:v libx265 -preset ultrafast -x265-params log-level=none:keyint=20 -tag:v hvc1
make -i keyframes-hevc.mp4 "${exact[@]}" -c copy keyframes-hevc.mkv
gop vp9.webm 25 4 -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -g 20
make -i keyframes-vp9.webm "${exact[@]}" -c copy keyframes-vp9.mp4
gop mpeg2.mpg 25 4 -c:v mpeg2video -g 15 -bf 2
gop mpeg4.avi 25 4 -c:v mpeg4 -g 20
gop mpeg4-b.avi 25 4 -c:v mpeg4 -g 20 -bf 2
gop mpeg4-b.mp4 25 4 -c:v mpeg4 -g 20 -bf 2
gop wmv2.avi 25 8 -c:v wmv2 -g 20
gop wmv2.mkv 25 4 -c:v wmv2 -g 20
gop wmv2.asf 25 4 -c:v wmv2 -g 20
gop mjpeg.avi 25 1 -c:v mjpeg -pix_fmt yuvj420p
gop theora.ogg 25 4 -c:v libtheora -g 20
make -i keyframes-open.mkv -c:v copy "${exact[@]}" -f h264 keyframes-untimed.h264
# A cover in front of the video.
make -i cover.png -i keyframes-no-b.mp4 -map 0 -map 1 -c copy "${exact[@]}" \
  -disposition:v:0 attached_pic keyframes-cover.mp4

# Half a minute of every kind that is cut into segments: small pictures, but all the frame rates,
# groups of pictures, containers and sounds that make the cut differ.
film() { # NAME RATE SAMPLE_RATE OPTIONS...
  local name=$1 rate=$2 samples=$3
  shift 3
  make -f lavfi -i "$(picture 160x90 "$rate" 30)" \
    -f lavfi -i "sine=frequency=440:sample_rate=$samples:duration=30" \
    "${exact[@]}" -c:v libx264 -preset ultrafast -pix_fmt yuv420p -sc_threshold 0 "$@" "$name"
}
reordered=(-bf 3 -x264-params b-adapt=0:b-pyramid=normal)
open_groups=(-bf 2 -x264-params b-adapt=0:open-gop=1)
uneven=(-g 9999 -force_key_frames 0.5,1.1,1.2,5.3,8.01,12,15.9,16,16.1,24.03,29.6)
film film-irregular.mkv 24000/1001 48000 "${reordered[@]}" "${uneven[@]}" -c:a ac3
film film-open.mp4 24 44100 "${open_groups[@]}" -g 60 -c:a aac
film film-far.ts 25 48000 "${open_groups[@]}" -g 50 -c:a eac3 -output_ts_offset 36000
film film-near.ts 25 48000 "${reordered[@]}" -g 32 -c:a mp2
film film-dts.mkv 30000/1001 48000 "${uneven[@]}" -c:a dca -strict -2
film film-opus.mkv 50 48000 "${reordered[@]}" -g 120 -c:a libopus
film film-no-edits.mp4 60 48000 "${reordered[@]}" "${uneven[@]}" -c:a aac -use_editlist 0
film film-variable.mkv 60 44100 "${uneven[@]}" -c:a libmp3lame \
  -vf "select='gt(random(1),0.5)+eq(n,0)'" -vsync vfr
film film.avi 25 48000 -g 70 -c:a libmp3lame
film film-reordered.avi 25 44100 "${reordered[@]}" -g 70 -c:a libmp3lame
film film-late.mkv 25 44100 "${reordered[@]}" -g 65 -c:a aac -output_ts_offset 7.3
film film-one-keyframe.mkv 24 48000 "${reordered[@]}" -g 9999 -c:a aac
film plain.mkv 25 48000 "${reordered[@]}" -g 60 -c:a aac
# An edit list begins between keyframes.
make -ss 3.3 -i plain.mkv "${exact[@]}" -c copy film-edits.mp4
# The picture begins 1.2 seconds behind the sound.
make -i film-late.mkv -itsoffset 1.2 -i film-late.mkv -map 1:v -map 0:a "${exact[@]}" -c copy \
  film-late-picture.mkv
# Containers and tracks that are not quite what one expects.
tail -c +200001 film-far.ts >film-cut-into.ts
make -i plain.mkv "${exact[@]}" -c:v mpeg2video -bf 2 -g 60 -sc_threshold 1000000000 -b:v 800k \
  -c:a mp2 -f vob film.mpg
# Hardly any of their pictures, forty to a packet, says when it is shown.
still() { # NAME RATE OPTIONS...
  local name=$1 rate=$2
  shift 2
  make -f lavfi -i "color=red:size=160x96:rate=$rate:duration=30" -i plain.mkv -map 0 -map 1:a \
    "${exact[@]}" -g 15 -c:a mp2 "$@" "$name"
}
still film-still.mpg 25 -c:v mpeg2video -bf 0 -f vob
still film-still-ntsc.mpg 30000/1001 -c:v mpeg1video -bf 2
make -i plain.mkv "${exact[@]}" -c copy -movflags frag_keyframe+empty_moov film-fragments.mp4
make -i plain.mkv "${exact[@]}" -c copy -f matroska - >film-no-cues.mkv
make -i plain.mkv -itsoffset 2 -i plain.mkv -map 0:v -map 1:a "${exact[@]}" -c copy -t 30 \
  film-late-sound.mkv
make -i plain.mkv -t 20 -i plain.mkv -map 0:v -map 1:a "${exact[@]}" -c copy film-short-sound.mp4
make -t 17 -i plain.mkv -i plain.mkv -map 0:v -map 1:a "${exact[@]}" -c copy film-short-picture.mkv
make -i plain.mkv -map 0:v "${exact[@]}" -c copy -frames:v 1 one.mkv
make -i one.mkv -i plain.mkv -map 0:v -map 1:a "${exact[@]}" -c copy -t 12 film-one-picture.mkv
make -i plain.mkv "${exact[@]}" -c copy -bsf:a noise=drop=1 film-mute.mkv
rm one.mkv
make -i plain.mkv "${exact[@]}" -c:v copy -c:a eac3 -ac 6 film-surround.mkv
make -i plain.mkv "${exact[@]}" -c:v copy -c:a libmp3lame -ac 1 -ar 22050 film-mono.mkv
rm plain.mkv

# Two minutes for clients that seek, with sound that no client of an HLS stream can be given as it is.
make -f lavfi -i "$(picture 160x90 25 120)" -f lavfi -i sine=frequency=440:duration=120 \
  "${exact[@]}" -c:v libx264 -preset ultrafast -pix_fmt yuv420p "${uneven[@]}" -c:a flac seeks.mkv

# Broken files.
head -c 20000 clip.mkv >truncated.mkv
head -c 20000 clip.mp4 >truncated.mp4
awk 'BEGIN { srand(1); for (i = 0; i < 20000; i++) printf "%c", 33 + int(rand() * 94) }' >garbage.mkv
: >empty.mkv
