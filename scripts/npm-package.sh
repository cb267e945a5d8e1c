#!/usr/bin/env bash
# Packs web/plugin as it is in a fresh clone, has two linters look at the package, and builds a page with Vite and
# TypeScript from it, which drives build/release/tarn in Chromium. Uncommitted changes count; files that git does not
# know do not.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

# Debian 12 has Node.js 18, which is enough for all else.
version=$(node --version 2>/dev/null || echo none)
[ "$(printf 'v20.19\n%s\n' "$version" | sort -V | head -n 1)" = v20.19 ] ||
  fail "this needs Node.js 20.19 or newer, for Vite and attw; here is $version. Another Node.js in PATH is taken."

build_web
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

tell "... npm pack, from a fresh clone"
mkdir "$place/clone"
git ls-files -z | tar --null -T - -c | tar -x -C "$place/clone"
(cd "$place/clone" && npm pack ./web/plugin --silent --pack-destination "$place") >"$place/pack.txt" 2>&1 ||
  fail "npm pack: $(tail -n 20 "$place/pack.txt")"
package=$(echo "$place"/tarn-bridge-*.tgz)
for file in dist/docs.json dist/plugin.js host/native.js LICENSE README.md; do
  tar -tf "$package" "package/$file" >/dev/null 2>&1 || fail "the package lacks $file"
done
tar -xOf "$package" package/host/native.js | cmp - web/host/native.js

tell "... a page from it: installed, linted, type-checked, built"
cp -r web/packed web/.npmrc "$place"
cd "$place/packed"
npm ci --ignore-scripts --loglevel=error >"$place/npm.txt" 2>&1 || fail "npm ci: $(cat "$place/npm.txt")"
npm install --ignore-scripts --loglevel=error "$package" >"$place/npm.txt" 2>&1 || fail "npm install: $(cat "$place/npm.txt")"
npx --no publint run "$package" >"$place/publint.txt" 2>&1 || true # it succeeds in spite of warnings
grep -q 'All good!' "$place/publint.txt" || fail "publint: $(cat "$place/publint.txt")"
npx --no attw "$package" >"$place/attw.txt" 2>&1 || fail "attw: $(cat "$place/attw.txt")"
for way in import require script; do node entries.mjs "$way" || fail "$way"; done
npm run --silent build >"$place/vite.txt" 2>&1 || fail "tsc or vite: $(cat "$place/vite.txt")"
cd - >/dev/null

tell "... that page in Chromium, over tarn serve --web"
command -v chromium >/dev/null || install_missing chromium
(cd web && TARN_PAGE=$place/packed/dist TARN_BINARY=../build/release/tarn node --test e2e/packed.test.mjs)
