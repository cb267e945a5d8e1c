#!/usr/bin/env bash
# Makes the packages of Debian twice, in two folders: they must be the same, bit for bit. Then tries them in a fresh
# Debian. The packages stay in build/package.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

[ "$(id -u)" -eq 0 ] || fail "only root can set up a fresh Debian"
# shellcheck disable=SC2086
install_missing $tarn_packages git scdoc lintian debootstrap
place=$(mktemp -d)
trap 'rm -rf --one-file-system "$place"' EXIT

SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
commit=$(git rev-parse --short=12 HEAD)

# make_packages FOLDER: configures and builds FOLDER/build/package, and packs it.
make_packages() (
  cd "$1"
  build_web
  rm -f build/package/*.deb
  cmake --preset package -DTARN_COMMIT="$commit" >"$place/cmake.txt" || fail "$(cat "$place/cmake.txt")"
  build package product
  cd build/package
  cpack >"$place/cpack.txt" 2>&1 || fail "$(tail -n 20 "$place/cpack.txt")"
)

tell "Making the packages ..."
make_packages .
tell "Making them once more, elsewhere ..."
again=$place/another/folder
mkdir -p "$again"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$again"
CCACHE_DISABLE=1 make_packages "$again"
[ "$(find build/package -maxdepth 1 -name '*.deb' | wc -l)" -eq 3 ] || fail "there are not three packages"
for package in build/package/*.deb; do
  cmp "$package" "$again/build/package/$(basename "$package")" || fail "two builds differ"
done

tell "Reading them with lintian ..."
lintian --allow-root --fail-on error build/package/*.deb

tell "Trying them in a fresh Debian ..."
mirror=$(apt-get indextargets --format '$(ORIGIN) $(CODENAME) $(REPO_URI)' 'Created-By: Packages' |
  sed -n '/^Debian bookworm /{s/.* //p;q}')
root=$place/root
debootstrap --variant=minbase bookworm "$root" "$mirror" >"$place/debootstrap.txt" ||
  fail "$(tail -n 20 "$place/debootstrap.txt")"
mkdir "$root/packages"
cp build/package/*.deb "$root/packages"
cp -r examples scripts/try-packages.sh "$root/packages"
# All that still runs in there ends with it.
unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" chroot "$root" \
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 /packages/try-packages.sh

tell "The packages are in build/package."
