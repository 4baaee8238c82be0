# shellcheck shell=bash
# Functions that the trials on an installed system share.

say() { printf '\n== %s\n' "$*"; }

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

# Run a command as the user nobody: as_nobody COMMAND...; also with a group: as_member GROUP COMMAND...
as_nobody() { HOME=/nonexistent setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"; }
as_member() {
  HOME=/nonexistent setpriv --reuid=nobody --regid=nogroup \
    --groups "$(getent group "$1" | cut -d: -f3)" "${@:2}"
}

service=tag:example.com,2026:pebblecove

# Has nobody ask for the service's fragment. Fails if it lacks the name, or takes too long: answers SECONDS NAME.
answers() {
  local begin end
  begin=$(date +%s%N)
  as_nobody timeout 30 esgctl xml service "$service" >/tmp/said 2>&1 || { cat /tmp/said; fail 'no answer'; }
  end=$(date +%s%N)
  printf 'answered after %d ms\n' $(((end - begin) / 1000000))
  grep -qF "$2" /tmp/said || { cat /tmp/said; fail "no $2 in the answer"; }
  ((end - begin < $1 * 1000000000)) || fail "that took longer than $1 s"
}

# Prints the processes of the guide service.
service_processes() {
  local exe
  for exe in /proc/[0-9]*/exe; do
    [[ $(readlink "$exe") == /usr/bin/esg-guide-service* ]] && basename "${exe%/exe}"
  done
  return 0
}

# Waits until a condition holds: await WHAT COMMAND...
await() {
  local what=$1 deadline=$((SECONDS + 20))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || fail "not within 20 s: $what"
    read -r -t 0.05 <> <(:) || true
  done
}
