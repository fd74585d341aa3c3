#!/bin/sh
# Installs what building, running and testing the launcher needs on Debian 12.
set -eu
packages="cmake g++ make pkg-config git
  qt6-base-dev qt6-declarative-dev qcoro-qt6-dev libssl-dev openssl libisal-dev libzstd-dev
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-templates
  qml6-module-qtquick-layouts qml6-module-qtquick-window qml6-module-qtqml-workerscript
  qml6-module-qtqml qml6-module-qtqml-models qt6-wayland patchelf libelf-dev
  qt6-qpa-plugins libgl-dev fonts-dejavu-core
  nginx-light curl ca-certificates util-linux xvfb xauth x11-utils libxtst6 openbox desktop-file-utils xdg-utils
  appstream libglib2.0-bin dbus-daemon python3
  debootstrap debian-archive-keyring rclone"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    $sudo apt-get update
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends $missing
fi
