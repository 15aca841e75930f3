#!/usr/bin/env bash
# run_test.sh SOURCE: what ./run makes of its arguments, with a sandbox that only notes what it is
# told, in a checkout that needs no build.
set -euo pipefail
. "$(dirname "$(readlink -f "$0")")/check.sh"

checkout=$work/check\ out
build=$checkout/build/dev
mkdir -p "$checkout/packaging" "$build/cli" "$build/transcoder" "$checkout/build/sample"
cp "$1/run" "$checkout/run"
echo sample >"$checkout/build/sample/sample.mkv"
touch "$build/transcoder/tarn-ffmpeg"
chmod +x "$build/transcoder/tarn-ffmpeg"
printf 'build=$PWD/build/dev\nprepare() { echo "$*" >>"$PWD/prepared"; }\n' \
  >"$checkout/packaging/prepare.sh"
cat >"$build/sandbox" <<'STUB'
#!/usr/bin/env bash
root=$(dirname "$0")/../..
pwd >"$root/folder"
: >"$root/shown"
: >"$root/writable"
while [[ $1 == --* ]]; do
  [[ $1 != --show ]] || echo "$2" >>"$root/shown"
  if [[ $1 == --rw ]]; then
    echo "$2" >"$root/writable"
    [[ $(cat "$root/status") != 0 ]] || echo playlist >"$2/index.m3u8"
  fi
  shift 2
done
printf '%s\n' "$@" >"$root/command"
echo output
exit "$(cat "$root/status")"
STUB
chmod +x "$build/sandbox"
echo 0 >"$checkout/status"

mkdir -p "$work/films/sub" "$work/other"
cd "$work/films"
touch -- film.mkv 'a film.mkv' -film.mkv probe sub/film.mkv profiles.json "$work/other/film.mkv"
ln -s "$work/other/film.mkv" link.mkv

run() { "$checkout/run" "$@"; }
tarnvte=$build/cli/tarnvte
# The program and its arguments, blanks as "_".
command_line() { sed -e "s|^$tarnvte\$|tarnvte|" -e 's/ /_/g' "$checkout/command" | xargs; }
shown() { sort -u "$checkout/shown" | grep -v -x -F "$work/films" || true; }

run tarnvte probe film.mkv >out
equal 'the output is the caller'"'"'s' output "$(cat out)"
equal 'arguments stay as typed, words that are files, too' 'tarnvte probe film.mkv' "$(command_line)"
equal 'the command runs where the caller is' "$work/films" "$(cat "$checkout/folder")"
equal 'what it builds is the product' product "$(tail -n 1 "$checkout/prepared")"
check 'files below /tmp are shown' grep -q -x -F "$work/films/film.mkv" "$checkout/shown"
check 'and so is the folder' grep -q -x -F "$work/films" "$checkout/shown"
rm probe
run tarnvte probe 'a film.mkv' >out
equal 'a blank in a name' 'tarnvte probe a_film.mkv' "$(command_line)"
equal 'its file is shown' "$work/films/a film.mkv" "$(shown)"
run tarnvte probe -- -film.mkv >out
equal 'a name that begins with a dash' 'tarnvte probe -- -film.mkv' "$(command_line)"
equal 'its file is shown' "$work/films/-film.mkv" "$(shown)"
run tarnvte plan ../other/film.mkv >out
equal 'a name outside the folder' "$work/other/film.mkv" "$(shown)"
run tarnvte plan link.mkv >out
equal 'a link and where it leads' "$(printf '%s\n' "$work/films/link.mkv" "$work/other/film.mkv")" \
  "$(shown)"
run tarnvte plan /usr/bin/env --profile-file=profiles.json >out
equal 'a file behind an equals sign' "$work/films/profiles.json" "$(shown)"
(cd / && run tarnvte probe /usr/bin/env >/dev/null)
equal 'what the sandbox does not replace needs not be shown' '' "$(cat "$checkout/shown")"
(cd /tmp && run tarnvte doctor >/dev/null)
equal '/tmp itself is never shown' '' "$(cat "$checkout/shown")"

for option in '-o out.webm' '-oout.webm' '--output out.webm' '--output=out.webm'; do
  rm -f out.webm
  # shellcheck disable=SC2086
  equal "$option prints nothing" '' "$(run tarnvte stream film.mkv $option --start 1)"
  equal "$option comes through a pipe" 'tarnvte stream film.mkv -o - --start 1' "$(command_line)"
  equal "$option is written" output "$(cat out.webm)"
done
run tarnvte stream -o "$work/other/the out.webm" -- -film.mkv
equal 'an absolute name, and a dash behind it' 'tarnvte stream -o - -- -film.mkv' "$(command_line)"
equal 'it is written' output "$(cat "$work/other/the out.webm")"
equal 'a dash is standard output' output "$(run tarnvte stream film.mkv -o -)"
equal 'a missing name is wrong usage' 2 "$(status run tarnvte stream film.mkv -o)"
equal 'the source is not overwritten' 2 "$(status run tarnvte stream film.mkv -o ./film.mkv)"
check 'it is as it was' test ! -s film.mkv
mkfifo pipe
cat pipe >from-pipe &
run tarnvte stream film.mkv -o pipe
wait $!
equal 'a pipe is written to and stays one' 'output fifo' \
  "$(cat from-pipe) $(stat -c %F pipe)"

echo 5 >"$checkout/status"
echo older >out.webm
equal 'the exit status is the command'"'"'s' 5 "$(status run tarnvte stream film.mkv -o out.webm)"
equal 'a failed run leaves what was there' older "$(cat out.webm)"
equal 'and nothing else' '' "$(find "$work" -name '*.part*')"
equal 'nor a volume' '' "$(find "$build" -name 'volume.*')"
echo 0 >"$checkout/status"

for words in 'stream film.mkv --kind HLS' 'stream --kind=hls film.mkv' 'playlist film.mkv' \
  '--verbose playlist film.mkv'; do
  # shellcheck disable=SC2086
  run tarnvte $words -o folder >out
  equal "$words gets a folder" "tarnvte $words -o $work/films/folder" "$(command_line)"
  equal "$words may write it" "$work/films/folder" "$(cat "$checkout/writable")"
  equal "$words prints to the caller" output "$(cat out)"
  equal "$words leaves what was written" playlist "$(cat folder/index.m3u8)"
  rm -r folder
done
for words in 'stream playlist --kind WEBM' 'segment film.mkv' 'stream film.mkv -- --kind HLS'; do
  # shellcheck disable=SC2086
  run tarnvte ${words%% -- *} -o out.ts ${words#"${words%% -- *}"} >out
  equal "$words gets no folder" '' "$(cat "$checkout/writable")"
done
equal 'a dash is no folder' "$(printf 'output\n')" "$(run tarnvte playlist film.mkv -o -)"
equal 'and none is made' '' "$(cat "$checkout/writable")"
echo 5 >"$checkout/status"
equal 'the exit status of a command that writes a folder' 5 \
  "$(status run tarnvte playlist film.mkv -o folder)"
check 'whose folder goes' test ! -e folder
echo 0 >"$checkout/status"

# What is served is served by the command itself, which goes through the sandbox with its socket.
cat >"$tarnvte" <<'STUB'
#!/usr/bin/env bash
printf '%s\n' "$@" >"$(dirname "$0")/../../../served"
pwd >"$(dirname "$0")/../../../folder"
exit "$(cat "$(dirname "$0")/../../../status")"
STUB
chmod +x "$tarnvte"
served() { grep -v -e '^--through=' "$checkout/served" | sed 's/ /_/g' | xargs; }
through() { sed -n 's/^--through=//p' "$checkout/served"; }
run 'a film.mkv'
equal 'a film alone is served' 'serve -- a_film.mkv' "$(served)"
equal 'through the sandbox' "$build/sandbox" "$(through | head -n 1)"
check 'which shows the film' grep -q -x -F "$work/films/a film.mkv" <(through)
check 'and has a volume' grep -q -x -F -e --volume <(through)
equal 'in the folder of the caller' "$work/films" "$(cat "$checkout/folder")"
run sub film.mkv -film.mkv
equal 'folders and films are' 'serve -- sub film.mkv -film.mkv' "$(served)"
mkdir -p "$checkout/build/sample library"
run
equal 'without a name the sample library is' "serve -- $checkout/build/sample_library" \
  "$(served | sed 's|check_out|check out|')"
run tarnvte serve --listen 127.0.0.1:0 sub
equal 'its options are the caller'"'"'s' 'serve --listen 127.0.0.1:0 sub' "$(served)"
echo 5 >"$checkout/status"
equal 'the exit status is the server'"'"'s' 5 "$(status run sub)"
echo 0 >"$checkout/status"
run tarn-ffmpeg -i film.mkv -output_ts_offset 3 >out
equal 'a transcoder by its name, with its own options' \
  "$(printf '%s\n' "$build/transcoder/tarn-ffmpeg" -i film.mkv -output_ts_offset 3)" \
  "$(cat "$checkout/command")"
equal 'a program that does not exist' 2 "$(status run tarn-nothing)"
equal 'a film that does not exist' 3 "$(status run missing.mkv)"
equal 'one of two films that does not exist' 3 "$(status run film.mkv missing.mkv)"
check 'help is help' grep -q 'serves videos' <(run --help)

exit $((failures > 0))
