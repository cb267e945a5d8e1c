#!/usr/bin/env bash
# Installs what build/release has built into a folder of its own, moves it, and tries there what others build on:
# the exported names, the headers, the example by find_package and by pkg-config, shared and static, the command.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh
build=$PWD/build/release
place=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server" 2>/dev/null; rm -rf "$place"' EXIT

cmake --install "$build" --strip --prefix "$place/first" >"$place/install.txt"
mv "$place/first" "$place/moved"
prefix=$place/moved
lib=$(dirname "$(find "$prefix" -name libtarn.so)")
posters=("$prefix"/libexec/tarn*/tarn-poster)
[ ${#posters[@]} -eq 2 ] || fail "the command and the library have no program each for posters"

tell "... what the library shows"
nm -DC --defined-only "$lib/libtarn.so" | cut -c18- | grep -v '^A ' | sed 's/@@.*//' | LC_ALL=C sort -u >"$place/exports.txt"
diff -u src/api/exports.txt "$place/exports.txt" || fail "src/api/exports.txt lists other names"
version=$(sed -n 's/.*STRING "\(.*\)"/\1/p' "$prefix/include/tarn/version.h")
readelf -d "$lib/libtarn.so" | grep -q "SONAME.*\[libtarn.so.${version%.*}\]" || fail "its name lacks major and minor"
for file in "$lib/libtarn.so" "$prefix/bin/tarn" "${posters[@]}"; do
  ! grep -qF "$PWD" "$file" || fail "$file holds the path of the build"
done
"$prefix/bin/tarn" --version | head -n 1 | grep -q "^tarn $version\(,\|$\)" || fail "the command has another version"
for package in web/package.json web/plugin/package.json; do
  grep -q "\"version\": \"$version\"" $package || fail "$package has another version"
done
for file in share/{bash-completion/completions/tarn,zsh/vendor-completions/_tarn,fish/vendor_completions.d/tarn.fish} \
  lib/systemd/user/tarn.service; do
  [ -s "$prefix/$file" ] || fail "$file is missing"
done

tell "... its headers"
for header in "$prefix"/include/tarn/*.h; do
  ! grep -H '#include' "$header" | grep -v '<tarn/[a-z]*\.h>\|<[a-z_]*>\|<std[a-z]*\.h>' || fail "a foreign header"
  echo "#include <tarn/$(basename "$header")>" >"$place/one.cpp"
  g++ -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" "$place/one.cpp"
done
printf '#include <tarn/avsync.h>\n#include <tarn/hevc.h>\n' >"$place/two.c"
gcc -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" "$place/two.c"

tell "... the example, four ways"
export PKG_CONFIG_PATH=$lib/pkgconfig
for static in OFF ON; do
  cmake -S examples -B "$place/$static" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DTARN_STATIC=$static \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >"$place/cmake.txt" || fail "find_package: $(cat "$place/cmake.txt")"
  ninja -C "$place/$static" >"$place/ninja.txt" || fail "find_package: $(cat "$place/ninja.txt")"
done
# shellcheck disable=SC2046
g++ -std=c++20 -Wall -Wextra -Werror examples/repair.cpp -o "$place/by-pkg-config" $(pkg-config --cflags --libs tarn) \
  -Wl,-rpath,"$lib"
# All of the library, so that none of what it needs is left out.
# shellcheck disable=SC2046
g++ -std=c++20 -Wall -Wextra -Werror examples/repair.cpp -o "$place/by-pkg-config-static" $(pkg-config --cflags tarn) \
  $(pkg-config --static --libs tarn | sed 's/-ltarn/-Wl,--whole-archive -l:libtarn.a -Wl,--no-whole-archive/')
! ldd "$place/by-pkg-config-static" "$place/ON/repair" | grep -q libtarn || fail "the static example needs libtarn.so"

ffmpeg -v error -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 -f lavfi -i sine=duration=2 -c:v libx264 \
  -tag:v avc3 -bsf:v dump_extra -c:a ac3 -y "$place/clip.mp4"
"$prefix/bin/tarn" repair "$place/clip.mp4" -o "$place/expected.mp4" >/dev/null 2>&1
[ "$(ffprobe -v error -select_streams v -show_entries stream=codec_tag_string -of csv=p=0 "$place/expected.mp4")" = avc1 ] ||
  fail "the installed command does not repair"
for poster in "${posters[@]}"; do
  "$poster" <"$place/clip.mp4" | ffprobe -v error -show_entries stream=codec_name -of csv=p=0 - |
    grep -qx mjpeg || fail "the installed program makes no poster"
done
for program in OFF/repair ON/repair by-pkg-config by-pkg-config-static; do
  "$place/$program" "$place/clip.mp4" "$place/out.mp4" >"$place/out.txt" 2>"$place/progress.txt" || fail "$program: $(cat "$place/out.txt")"
  head -n 1 "$place/out.txt" | grep -qx "libtarn $version" || fail "$program is another version"
  grep -q '^Repairable' "$place/out.txt" && grep -q 'out.mp4: Nothing to repair' "$place/out.txt" ||
    fail "$program: $(cat "$place/out.txt")"
  grep -q '%' "$place/progress.txt" || fail "$program shows no progress"
  cmp "$place/out.mp4" "$place/expected.mp4" || fail "$program repairs otherwise than the command"
  rm "$place/out.mp4"
  ! "$place/$program" "$place/clip.mp4" "$place/clip.mp4" >"$place/out.txt" 2>"$place/error.txt" || fail "$program writes over its input"
  grep -q 'IN and OUT are the same file' "$place/error.txt" || fail "$program: $(cat "$place/error.txt")"
done

# served PATH OPTIONS...: what the command serves below PATH with these options.
served() {
  local path=$1 address base
  shift
  rm -f "$place/address.txt"
  "$prefix/bin/tarn" --home "$place/home" serve "$@" >"$place/address.txt" 2>"$place/serve.txt" &
  server=$!
  until grep -qs token "$place/address.txt"; do
    kill -0 "$server" 2>/dev/null || fail "serve: $(cat "$place/serve.txt")"
    sleep 0.05
  done
  address=$(cat "$place/address.txt")
  base=$(curl -sf -c "$place/cookies.txt" "$address" | sed -n 's/.*url=\([^"]*\)".*/\1/p')
  curl -sf -b "$place/cookies.txt" "${address%%/\?*}$base$path" >"$place/served.txt" || true
  kill "$server"
  wait "$server" || [ $? -eq 130 ] || fail "serve does not end in order"
  server=
}

tell "... the page"
mkdir "$place/page" && echo '<title>mine</title>' >"$place/page/index.html"
served "" --web "$place/page"
grep -q 'native.js.*mine' "$place/served.txt" || fail "serve --web shows another page"
served bridge/native.js --web "$place/page"
grep -q PluginHeaders "$place/served.txt" || fail "a page of one's own gets no bridge"
mkdir -p "$prefix/share/tarn/web" && echo '<title>own</title>' >"$prefix/share/tarn/web/index.html"
served ""
grep -q 'native.js.*own' "$place/served.txt" || fail "serve does not find the page beside it"
