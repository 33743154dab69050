# shellcheck shell=bash
# Sourced by the scripts that need tools which a fresh machine lacks.

# newest_package PREFIX
# The highest number that stands behind the prefix in the name of a package; nothing without one.
newest_package() {
  apt-cache search --names-only "^${1//+/\\+}[0-9]+\$" | sed -E 's/ .*//; s/.*-//' | sort -n |
    tail -n 1
}

# need_tools TOOL:PACKAGE...
# Installs the Debian package of every tool that is missing, as root or, when $install is yes,
# through sudo. Otherwise it names them and the command, and returns 1. A tool is a command, or a
# file when it is written as a path.
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

  local command=(apt-get install --yes --no-install-recommends "${packages[@]}")
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  if [ "$(id -u)" -ne 0 ] && [ "${install-}" != yes ] ||
    ! "${as_root[@]}" apt-get --version > /dev/null 2>&1; then
    printf 'Missing: %s. On Debian, this installs them:\n  sudo %s\n' \
      "${packages[*]}" "${command[*]}" >&2
    return 1
  fi
  echo "Installing ${packages[*]}"
  "${as_root[@]}" apt-get -qq update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive "${command[@]}" -qq > /dev/null
}
