#!/usr/bin/env bash
# Fails when an include climbs the layers of cmake/layers.txt, when a source file belongs to no layer,
# when a pattern matches no file, or when a program (cli, backend, or client, which they share) includes
# anything but the installed headers.
set -euo pipefail
cd "$1"
shopt -s nullglob globstar

failures=0
fail() {
  echo "$*"
  failures=$((failures + 1))
}

declare -A target_of level_of
while read -r level target line; do
  [[ $level == '#' || -z $level ]] && continue
  level_of[$target]=$level
  read -ra patterns <<<"$line"
  for pattern in "${patterns[@]}"; do
    files=($pattern)
    [[ $pattern == *'/*' ]] && files=(${pattern%/\*}/**/*)
    found=0
    for file in "${files[@]}"; do
      [[ -f $file ]] || continue
      target_of[$file]=$target
      found=1
    done
    ((found)) || fail "cmake/layers.txt: $pattern of $target matches no file"
  done
done <cmake/layers.txt

# What a file includes, in quotes or angle brackets.
includes() {
  sed -nE 's/^#include ["<]([^">]*)[">].*/\1/p' "$1"
}

# Where an include in a file leads to, empty when it is not ours.
resolve() {
  local candidate
  for candidate in "$2" "include/$2" "platform/include/$2" "${1%/*}/$2"; do
    if [[ -f $candidate ]]; then
      echo "$candidate"
      return
    fi
  done
}

checked=0
while IFS= read -r file; do
  own=${target_of[$file]-}
  if [[ -z $own ]]; then
    fail "$file belongs to no layer of cmake/layers.txt"
    continue
  fi
  while IFS= read -r include; do
    path=$(resolve "$file" "$include")
    [[ -n $path ]] || continue
    checked=$((checked + 1))
    other=${target_of[$path]-none}
    [[ $other == "$own" ]] && continue
    if [[ $own == frontend && $other != base ]]; then
      fail "$file includes $include: the transcoder programs use base only"
    fi
    if ((${level_of[$other]-99} >= ${level_of[$own]})); then
      fail "$file ($own, level ${level_of[$own]}) includes $include ($other, level ${level_of[$other]-99})"
    fi
  done < <(includes "$file")
done < <(find base platform host metadata vte include transcoder -name '*.cc' -o -name '*.h' | sort)

# check_program DIRECTORY FOLDER...: a program sees itself, the installed headers and those folders.
check_program() {
  local file include path seen folder
  while IFS= read -r file; do
    while IFS= read -r include; do
      path=$(resolve "$file" "$include")
      [[ -n $path ]] || continue
      checked=$((checked + 1))
      seen=
      for folder in include/tarnvte "$@"; do
        [[ $path != "$folder"/* ]] || seen=yes
      done
      [[ $seen ]] || fail "$file includes $include: a program uses the installed headers only"
    done < <(includes "$file")
  done < <(find "$1" -name '*.cc' -o -name '*.h' | sort)
}
check_program client
check_program cli client backend
check_program backend client

if ((checked < 100)); then
  fail "only $checked includes were looked at: the check itself is broken"
fi
exit $((failures > 0))
