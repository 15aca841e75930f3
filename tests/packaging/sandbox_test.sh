#!/usr/bin/env bash
# sandbox_test.sh BUILD
set -euo pipefail
. "$(dirname "$(readlink -f "$0")")/check.sh"
sandbox=$1/sandbox

mkdir -p "$work/shown" "$work/hidden" "$work/writable" "$work/volume"
echo film >"$work/shown/a film.mkv"
echo secret >"$work/hidden/file"

equal 'the caller is user 0 of a host with the engine'"'"'s folders' '0 ok' "$(
  "$sandbox" bash -c 'echo "$(id -u) $([[ -d /etc.defaults && -d /var/packages/Reelbay/etc &&
    -e /var/packages/Reelbay/target/share/profiles/webm.json && -w /volume1 && -w /tmp ]] && echo ok)"')"
equal 'there is no network' lo "$(
  "$sandbox" awk -F: 'NR > 2 {gsub(/ /, "", $1); print $1}' /proc/net/dev)"
equal 'the rest is read-only' '1 1 1' "$(
  for folder in /usr /etc "$1"; do status "$sandbox" touch "$folder/tarnvte-packaging-test"; done | xargs)"
equal 'a failing command is reported' 7 "$(status "$sandbox" bash -c 'exit 7')"
equal 'an unknown option is refused' 2 "$(status "$sandbox" --all true)"

equal 'the caller'"'"'s files in /tmp are not there' 1 "$(status "$sandbox" cat "$work/hidden/file")"
equal 'a shown file in /tmp can be read' film \
  "$("$sandbox" --show "$work/shown/a film.mkv" cat "$work/shown/a film.mkv")"
equal 'a shown folder can be read and not written' 'film 1' "$(
  echo "$("$sandbox" --show "$work/shown" cat "$work/shown/a film.mkv")" \
    "$(status "$sandbox" --show "$work/shown" touch "$work/shown/new")")"
equal 'what is beside it stays hidden' 1 \
  "$(status "$sandbox" --show "$work/shown" cat "$work/hidden/file")"
"$sandbox" --rw "$work/writable" bash -c 'echo written >"$0/file"' "$work/writable"
equal 'a writable folder is written' written "$(cat "$work/writable/file")"
"$sandbox" --volume "$work/volume" bash -c 'echo data >/volume1/file'
equal 'a volume is a folder of the host'"'"'s' data "$(cat "$work/volume/file")"
equal 'without one the volume is memory' 1 "$(status "$sandbox" cat /volume1/file)"

# A host with a film on its own /volume1, which the sandbox's volume lies upon.
mkdir "$work/host-volume"
echo film >"$work/host-volume/film.mkv"
echo other >"$work/host-volume/other.mkv"
host=(bwrap --tmpfs / --dev-bind /dev /dev --bind /proc /proc --bind /tmp /tmp
      --bind "$work/host-volume" /volume1)
for entry in /*; do
  case $entry in /dev | /proc | /tmp | /volume1) continue ;; esac
  if [[ -L $entry ]]; then
    host+=(--symlink "$(readlink "$entry")" "$entry")
  else
    host+=(--bind "$entry" "$entry")
  fi
done
for volume in '' "--volume $work/volume"; do
  # shellcheck disable=SC2086
  equal "a film on the host's volume is shown, and nothing else there (${volume:-memory})" 'film 1 0' "$(
    "${host[@]}" -- "$sandbox" $volume --show /volume1/film.mkv bash -c '
      echo $(cat /volume1/film.mkv; cat /volume1/other.mkv 2>/dev/null || echo 1
             touch /volume1/new && echo 0)')"
done
"${host[@]}" -- "$sandbox" --rw /volume1 bash -c 'echo written >/volume1/written'
equal "a folder on the host's volume is written" written "$(cat "$work/host-volume/written")"

exit $((failures > 0))
