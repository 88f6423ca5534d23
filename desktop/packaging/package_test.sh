#!/usr/bin/env bash
# Packs the programs of a build folder with CPack, unpacks the .deb with dpkg-deb -x
# and runs both programs' --version from it.
#   package_test.sh BUILD_DIR
set -euo pipefail
build="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || {
  cat "$work/cpack.log" >&2
  exit 1
}
deb="$(ls "$work"/out/corvane_*.deb)"
dpkg-deb -x "$deb" "$work/root"
for file in usr/bin/corvane usr/bin/corvane-desktop usr/lib/corvane/corvane-orgsim \
  usr/lib/corvane/sf usr/share/applications/corvane-desktop.desktop \
  usr/share/icons/hicolor/scalable/apps/corvane-desktop.svg; do
  [ -e "$work/root/$file" ] || { echo "missing from the package: $file" >&2; exit 1; }
done
grep -q '^Exec=corvane-desktop' "$work/root/usr/share/applications/corvane-desktop.desktop"
cli="$("$work/root/usr/bin/corvane" --version)"
desktop="$("$work/root/usr/bin/corvane-desktop" --version)"
echo "$cli"
echo "$desktop"
[[ "$cli" == corvane\ * ]] && [[ "$desktop" == corvane-desktop\ * ]]
dpkg-deb -f "$deb" Package Version Depends
