#!/usr/bin/env bash
# install-deps.sh [GROUP...]: installs the Debian packages of the named groups (default: all of them).
#   build  compiling the app and making its package
#   run    starting it on a desktop (Qt's X11 plugin, a Chinese font, the secret store, AT-SPI)
#   test   the private desktop sessions (X11, and KDE Wayland with its portal), the browser, the package checks
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

build_packages=(
  cmake ninja-build g++ pkg-config ccache git
  qt6-base-dev qt6-base-dev-tools qt6-svg-dev
  libsecret-1-dev libatspi2.0-dev libglib2.0-dev
  libx11-dev libxtst-dev libxi-dev libxfixes-dev
  libxcb1-dev libxcb-keysyms1-dev libxcb-xinput-dev libxcb-xtest0-dev libxcb-xfixes0-dev libxkbcommon-dev
  librsvg2-bin dpkg-dev
)
run_packages=(
  qt6-qpa-plugins qt6-translations-l10n fonts-noto-cjk gnome-keyring gcr at-spi2-core
)
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  xvfb xauth dbus dbus-x11 libsecret-tools
  xdotool xclip x11-utils imagemagick fonts-wqy-microhei trayer
  python3-gi gir1.2-gtk-3.0 tk xterm mate-settings-daemon
  chromium nodejs npm
  firefox-esr
  kwin-wayland xwayland xdg-desktop-portal xdg-desktop-portal-kde qtwayland5
  gnome-settings-daemon-common
  openssl
  lintian desktop-file-utils appstream man-db
)
# Only `make fuzz`: clang with libFuzzer and the sanitizer runtimes.
fuzz_packages=(clang libclang-rt-14-dev)

groups=("$@")
[ ${#groups[@]} -gt 0 ] || groups=(build run test)
wanted=()
for group in "${groups[@]}"; do
  case "$group" in
    build) wanted+=("${build_packages[@]}") ;;
    run) wanted+=("${run_packages[@]}") ;;
    test) wanted+=("${test_packages[@]}") ;;
    fuzz) wanted+=("${fuzz_packages[@]}") ;;
    *) echo "usage: $0 [build] [run] [test] [fuzz]" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${wanted[@]}"; do
  # NodeSource's nodejs carries npm itself and conflicts with Debian's npm package.
  if [ "$package" = npm ] && command -v npm >/dev/null; then
    continue
  fi
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: 需要 root 或 sudo 才能安装：${missing[*]}" >&2; exit 1; }
  sudo=(sudo)
fi
echo "install-deps: 正在安装 ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq -o DPkg::Lock::Timeout=900 "${missing[@]}"
