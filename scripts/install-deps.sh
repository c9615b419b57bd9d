#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing velnora need. Idempotent: when
# everything is present it only checks and returns.
set -euo pipefail

build_packages=(
  cmake ninja-build g++ pkg-config ccache
  qt6-base-dev qt6-base-dev-tools qt6-qpa-plugins libqt6svg6-dev
  libsecret-1-dev libatspi2.0-dev libglib2.0-dev
  libx11-dev libxtst-dev libxi-dev libxfixes-dev
  libxcb1-dev libxcb-keysyms1-dev libxcb-xinput-dev libxcb-xtest0-dev libxcb-xfixes0-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  librsvg2-bin qt6-translations-l10n
)
session_packages=(
  xvfb xauth dbus dbus-x11 at-spi2-core gnome-keyring libsecret-tools
  xdotool xclip x11-utils imagemagick fonts-wqy-microhei fonts-noto-cjk trayer
  chromium nodejs
  openssl
  lintian desktop-file-utils
)
# Only `make fuzz`: clang with libFuzzer and the sanitizer runtimes.
fuzz_packages=(clang libclang-rt-14-dev)

wanted=("${build_packages[@]}")
case "${1:-all}" in
  build) ;;
  all) wanted+=("${session_packages[@]}") ;;
  fuzz) wanted+=("${fuzz_packages[@]}") ;;
  *) echo "usage: $0 [build|all|fuzz]" >&2; exit 2 ;;
esac

missing=()
for package in "${wanted[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq "${missing[@]}"
