# shellcheck shell=bash
# Functions that the scripts share. Source it from a script that has set -euo pipefail.

ESG_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

esg_fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# Runs a command silently; shows its output only if it fails.
esg_quietly() {
  local said
  said=$("$@" 2>&1) || { printf '%s\n' "$said" >&2; return 1; }
}

# Prints the packages of some groups of the list that are not installed, one per line.
esg_missing_packages() {
  comm -23 \
    <(awk -v groups=" $* " '
        /^# [a-z]+: / { group = " " substr($2, 1, length($2) - 1) " " }
        { sub(/#.*/, "") }
        $1 != "" && index(groups, group) { print $1 }' "$ESG_ROOT/scripts/packages.txt" | sort -u) \
    <(dpkg-query -W -f '${Package} ${db:Status-Status}\n' | awk '$2 == "installed" { print $1 }' | sort -u)
}

# Installs the missing packages of some groups of the list; prints nothing if none is missing.
esg_install_packages() {
  if ! command -v apt-get dpkg-query >/dev/null; then
    printf 'This is no Debian system; install what scripts/packages.txt lists.\n' >&2
    return
  fi
  local missing as_root=()
  mapfile -t missing < <(esg_missing_packages "$@")
  ((${#missing[@]})) || return 0
  printf 'Installing %s\n' "${missing[*]}" >&2
  if ((EUID != 0)); then
    command -v sudo >/dev/null || esg_fail "not root and no sudo; please install: ${missing[*]}"
    as_root=(sudo)
    [[ -t 0 ]] || as_root+=(-n)
  fi
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300)
  esg_quietly "${apt[@]}" update || printf 'The package lists could not be updated.\n' >&2
  esg_quietly "${apt[@]}" install -y --no-install-recommends "${missing[@]}" ||
    esg_fail "could not install: ${missing[*]}"
}

# Configures a preset, silently.
esg_configure() {
  cd "$ESG_ROOT" || return
  cmake --preset "$1" --log-level=WARNING >/dev/null
}

# Creates the folder ESG_STATE. At the end of the script, it is removed and all programs of esg_start are stopped.
esg_start_session() {
  ESG_STATE=$(mktemp -d)
  ESG_STARTED=()
  trap esg_end_session EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM HUP
}

esg_end_session() {
  local pid
  for pid in "${ESG_STARTED[@]}"; do
    kill "$pid" 2>/dev/null || continue
    # In reverse order, one after the other, so that no program loses its bus before it ends.
    timeout 10 tail --pid="$pid" -f /dev/null || true
  done
  rm -rf "$ESG_STATE"
}

# Starts a program in the background and waits for its first line of output, which it stores in ESG_LINE.
esg_start() {
  exec {ESG_OUTPUT}< <(exec setpriv --pdeathsig TERM "$@")
  ESG_STARTED=("$!" "${ESG_STARTED[@]}")
  IFS= read -r -t 30 ESG_LINE <&"$ESG_OUTPUT" || esg_fail "this did not start within 30 s: $*"
}

# Starts a private bus of type system, and makes this process use it.
esg_start_bus() {
  cat >"$ESG_STATE/bus.conf" <<CONFIG
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$ESG_STATE/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONFIG
  # Without the privilege to raise its limits, the daemon prints a warning and continues; the warning is hidden.
  esg_start sh -c 'exec dbus-daemon "$@" 2>/dev/null' sh \
    --config-file="$ESG_STATE/bus.conf" --nofork --nopidfile --nosyslog --print-address=1
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$ESG_STATE/bus
}

# Creates a Debian root: esg_make_root FOLDER RELEASE ARCH [OPTION...], with options for debootstrap.
esg_make_root() {
  local root=$1 release=$2 arch=$3 mirror
  shift 3
  # Uses the package source of this machine, whatever its release.
  mirror=$(apt-get indextargets --format '$(REPO_URI)' \
    'Created-By: Packages' 'Origin: Debian' 'Label: Debian' 'Component: main' | head -n 1)
  [[ -n $mirror ]] || esg_fail 'no Debian archive to make a root from; add one to the sources of apt'
  printf 'Making a root of %s for %s\n' "$release" "$arch" >&2
  # After a failure, its log is in the root.
  esg_quietly debootstrap --variant=minbase --arch="$arch" "$@" "$release" "$root" "$mirror" ||
    { tail -n 20 "$root/debootstrap/debootstrap.log" >&2 || true; esg_fail 'debootstrap failed'; }
  apt-config dump | grep -E '^Acquire::(Check|Retries|http|https)' >"$root/etc/apt/apt.conf.d/90machine" || true
  # Prevents an installation from starting services.
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod +x "$root/usr/sbin/policy-rc.d"
}

# Runs a command in a root, in separate namespaces, so that nothing stays mounted or running.
esg_inside() {
  unshare --mount --pid --fork --kill-child --mount-proc="$1/proc" bash -c '
    set -e
    mount --rbind /dev "$0/dev"
    mount -t tmpfs tmpfs "$0/tmp"
    exec chroot "$0" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
      DEBIAN_FRONTEND=noninteractive "$@"
  ' "$@"
}

# Copies the project, without build results, to /src in a root.
esg_copy_project() {
  mkdir -p "$1/src"
  tar -C "$ESG_ROOT" --exclude=./build --exclude=./.git -cf - . | tar -C "$1/src" -xf -
}
