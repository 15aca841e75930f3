#!/usr/bin/env bash
# sample_library_test.sh SOURCE: packaging/sample-library.sh makes its folder whole or not at all, once.
# ffmpeg is played by a script.
set -euo pipefail
. "$(dirname "$(readlink -f "$0")")/check.sh"

make_library() { bash "$script" "$@"; }
script=$(readlink -f "$1")/packaging/sample-library.sh
cd "$work"

# Makes the file that is named last; fails when the file "broken" exists.
mkdir bin
cat >bin/ffmpeg <<'STUB'
#!/usr/bin/env bash
echo "$*" >>"$CALLS"
[[ ! -e $BROKEN ]] || exit 1
echo video >"${@: -1}"
STUB
chmod +x bin/ffmpeg
export PATH=$work/bin:$PATH CALLS=$work/calls BROKEN=$work/broken

equal 'a folder is needed' 2 "$(status make_library)"
equal 'there are no options' 2 "$(status make_library --help)"

touch broken
equal 'a failure of ffmpeg is one' 1 "$(status make_library 'a library')"
rm broken
equal 'a failure leaves nothing' $'bin\ncalls' "$(ls -A)"

make_library 'deep/a library/'
library=deep/a\ library
check 'videos are there' test -f "$library/Plays as it is.mp4"
check 'folders are there' test -f "$library/Series/Season 1/The.clock_episode.2.mkv"
equal 'subtitles lie beside' $'1\n00:00:00,000 --> 00:00:03,500\nVoici la seconde 0' \
  "$(head -n 3 "$library/Two languages.fra.srt")"
equal 'nothing lies beside the folder' 'a library' "$(ls -A deep)"
equal 'everybody may read it' 755 "$(stat -c %a "$library")"
equal 'nothing else is in it' '' \
  "$(find "$library" -name 'lying*' -o -name english.srt -o -name german.srt)"

calls=$(wc -l <calls)
make_library "$library"
equal 'it is made once' "$calls" "$(wc -l <calls)"
mkdir own empty
echo mine >own/file
make_library own
equal 'a folder in use is left alone' file "$(ls own)"
make_library empty
check 'an empty folder is filled' test -f 'empty/Ultra HD.mkv'
equal 'a file is no folder' 1 "$(status make_library own/file)"
equal 'and is left alone' mine "$(cat own/file)"
exit $((failures > 0))
