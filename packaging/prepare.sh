# Sourced by ./run and ./test: installs what is missing, configures, builds. Sets $build.
# Expects the working directory to be the root of the checkout.

build=$PWD/build/dev

# Runs a command silently; what it printed is shown only when it fails.
quietly() {
  local log
  log=$("$@" 2>&1) || {
    printf '%s\n' "$log" >&2
    return 1
  }
}

# Installed packages, and what they stand in for: a nodejs from elsewhere brings npm along.
installed_packages() {
  dpkg-query -W -f '${db:Status-Status},${Package},${Provides}\n' |
    sed -n -e 's/([^)]*)//g' -e 's/^installed,//p' | tr -d ' ' | tr ',' '\n'
}

install_packages() {
  local missing
  mapfile -t missing < <(grep -v -x -F -f <(installed_packages) packaging/debian-packages.txt)
  ((${#missing[@]})) || return 0
  if ((EUID != 0)); then
    echo "These packages are missing; install them first:" >&2
    echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
    return 1
  fi
  echo "Installing ${missing[*]}" >&2
  quietly apt-get update &&
    quietly env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y --no-install-recommends "${missing[@]}"
}

# Asking dpkg for every package takes a noticeable part of a second, so the answer is kept for as long
# as the list and dpkg's own state are older than it.
packages_known() {
  local stamp=build/packages-checked
  [[ -e $stamp && $stamp -nt packaging/debian-packages.txt && $stamp -nt /var/lib/dpkg/status ]]
}

# prepare TARGET...: builds the targets, saying so only when there is something to do.
prepare() {
  if ! packages_known; then
    install_packages || return 1
    mkdir -p build && touch build/packages-checked
  fi
  if [[ ! -e $build/build.ninja ]]; then
    quietly cmake --preset dev || return 1
  fi
  if [[ $(ninja -C "$build" -n "$@" 2>&1) == *'no work to do'* ]]; then
    return
  fi
  if [[ -t 2 ]]; then
    ninja -C "$build" "$@" >&2
  else
    echo "Building; the first time takes some minutes" >&2
    quietly ninja -C "$build" "$@"
  fi
}
