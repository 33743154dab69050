#!/usr/bin/env bash
# Only root, and who asks for it, gets packages installed. Nothing is installed here: what would be
# run is written down.
set -euo pipefail
source "$(dirname "$0")/../scripts/packages.sh"

id() { echo "$user"; }
for name in sudo env apt-get; do eval "$name() { ran+='$name '\"\$*;\"; }"; done

# case USER INSTALL STATUS RUN TOLD
case_of() {
  local user=$1 install=$2 ran='' status=0
  need_tools sh:dash /no/such/file:one no-such-tool:two > told 2>&1 || status=$?
  [ "$status" = "$3" ] && [[ $ran == $4 ]] && grep -qxF "$5" told && return
  echo "user $user, install $install: status $status, ran '$ran', told: $(cat told)"
  exit 1
}

cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT
command='apt-get install --yes --no-install-recommends one two'
case_of 0 no 0 "*;apt-get -qq update;env DEBIAN_FRONTEND=noninteractive $command*" "Installing one two"
case_of 1 yes 0 "*;sudo apt-get -qq update;sudo env DEBIAN* $command*" "Installing one two"
case_of 1 no 1 "" "  sudo $command"
