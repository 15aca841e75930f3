#!/usr/bin/env bash
# link_test.sh SOURCE BUILD PREFIX LIBDIR COMPILER [FLAGS]
set -euo pipefail
source=$1 build=$2 prefix=$3 libdir=$4 compiler=$5 flags=${6-}
work=$build/tests/link/work
rm -rf "$work"
mkdir -p "$work/outside"
stage=$work/stage

DESTDIR=$stage cmake --install "$build" >"$work/install.log"
profiles=/var/packages/Reelbay/target/share/profiles
page=/var/packages/Reelbay/target/share/page
for file in "$prefix/bin/tarnvte" /var/packages/Orbfold/target/bin/ffmpeg41 \
  /var/packages/Orbfold/target/bin/ffmpeg27 /var/packages/Reelbay/target/bin/tarn-gst "$prefix/include/tarnvte/webm_stream.h" \
  "$prefix/include/tarnvte/http_stream.h" \
  "$profiles"/{webm,hls,http,smooth}.json "$page"/{index.html,player.js,lib/hls.min.js}; do
  [[ -e $stage$file ]] || { echo "not installed: $file"; exit 1; }
done

# The README's example is this program, to the letter.
awk '/^```cpp$/ {inside = 1; next} /^```$/ {if (inside) exit} inside' "$source/README.md" \
  >"$work/outside/readme.cc"
diff "$source/tests/link/embed.cc" "$work/outside/readme.cc"

cp "$source/tests/link/embed.cc" "$work/outside/"
cat >"$work/outside/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(outside CXX)
find_package(tarnvte REQUIRED)
add_executable(embed embed.cc)
target_link_libraries(embed PRIVATE tarnvte::tarnvte)
CMAKE
cmake -S "$work/outside" -B "$work/outside/build" -G Ninja -DCMAKE_PREFIX_PATH="$stage$prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >"$work/configure.log"
ninja -C "$work/outside/build" >"$work/build.log"

export PKG_CONFIG_PATH=$stage$prefix/$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $flags "$work/outside/embed.cc" -o "$work/outside/embed-pc" \
  $(pkg-config --cflags --libs tarnvte) \
  -Wl,-rpath,"$stage$prefix/$libdir"

# The other byte stream, whose numbers need no transcoder.
cat >"$work/outside/predict.cc" <<'SOURCE'
#include <tarnvte/http_stream.h>
int main() {
  LibTarnVTE::HttpStream stream("nobody");
  char byte;
  return stream.GetTransBitRate() == -1 && stream.Read(&byte, 1) == -1 ? 0 : 1;
}
SOURCE
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $flags "$work/outside/predict.cc" -o "$work/outside/predict" \
  $(pkg-config --cflags --libs tarnvte) \
  -Wl,-rpath,"$stage$prefix/$libdir"
"$build/sandbox" "$work/outside/predict" || { echo "predict: failed"; exit 1; }

key=$(sed -n 's/.*"\(webm_[^"]*vp8[^"]*\)".*/\1/p' "$stage$profiles/webm.json" | head -n 1)
for program in "$work/outside/build/embed" "$work/outside/embed-pc"; do
  "$build/sandbox" "$program" "$build/tests/media/clip.mkv" "$stage$profiles/webm.json" "$key" \
    >"$work/out.webm"
  container=$(ffprobe -v error -show_entries format=format_name -of default=nw=1:nk=1 "$work/out.webm")
  [[ $container == matroska,webm ]] || { echo "$program: wrote \"$container\""; exit 1; }
done
