# shellcheck shell=bash
# Sourced by the scripts that need tools which a fresh machine lacks.

# need_tools TOOL:PACKAGE...
# Installs the Debian package of every tool that is missing. A tool is a command, or a file when it
# is written as a path. Where it cannot install, it names what is missing and returns 1.
need_tools() {
  local pair tool packages=() as_root=()
  for pair in "$@"; do
    tool=${pair%%:*}
    case $tool in
      */*) [ -e "$tool" ] ;;
      *) command -v "$tool" > /dev/null ;;
    esac || packages+=("${pair#*:}")
  done
  [ ${#packages[@]} -gt 0 ] || return 0

  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  if ! "${as_root[@]}" apt-get --version > /dev/null 2>&1; then
    echo "Missing: ${packages[*]} (Debian's names). Install them and try again." >&2
    return 1
  fi
  echo "Installing ${packages[*]}"
  "${as_root[@]}" apt-get -qq update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get -qq install --yes --no-install-recommends "${packages[@]}" > /dev/null
}
