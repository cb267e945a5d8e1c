#!/usr/bin/env bash
# Installs the packages that stand beside this script into the Debian that it runs in, tries them as a user would, and
# removes them: nothing may stay. Changes the system: for a fresh root alone (scripts/package.sh makes one).
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
log=$(mktemp)
runtime=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server" 2>/dev/null; rm -rf "$runtime" "$log"' EXIT

tell() { printf '%s\n' "$*" >&2; }
fail() { tell "FAILED: $*" && exit 1; }
quietly() { "$@" >"$log" 2>&1 </dev/null || fail "$*: $(tail -n 20 "$log")"; }
install() { DEBIAN_FRONTEND=noninteractive quietly apt-get install -y --no-install-recommends "$@"; }
as_user=(setpriv --reuid=user --regid=user --init-groups env HOME=/home/user)

tell "... installing"
quietly apt-get update
install "$here"/tarn_*.deb
version=$(dpkg-query -W -f='${Version}' tarn)
tarn --version | head -n 1 | grep -q "^tarn $version, commit [0-9a-f]" || fail "the command tells another version"
install man-db bash-completion zsh fish systemd ffmpeg curl
useradd --create-home user
cd /home/user

tell "... the manual and the completions"
[ -z "$("${as_user[@]}" man --warnings -E UTF-8 tarn 2>&1 >/tmp/manual.txt)" ] || fail "man warns"
for words in 'tarn(1)' 'systemctl --user' '--skip-done' '--address-file FILE' 'EXIT STATUS' '130'; do
  grep -qF -- "$words" /tmp/manual.txt || fail "the manual lacks $words"
done
bash -c '. /usr/share/bash-completion/bash_completion; _completion_loader tarn; complete -p tarn' |
  grep -qx 'complete -F _tarn tarn' || fail "bash finds no completions"
zsh -fc 'autoload -U compinit; compinit -u -d /tmp/zcompdump; print $_comps[tarn]' | grep -qx _tarn ||
  fail "zsh finds no completions"
zsh -n /usr/share/zsh/vendor-completions/_tarn
for row in 'tarn rep:repair' 'tarn library rem:remove' 'tarn repair --output-d:--output-dir' 'tarn completion z:zsh' \
  'tarn inspect /etc/pass:/etc/passwd' 'tarn --home /etc/ap:/etc/apt/' 'tarn save --quie:--quiet'; do
  fish -c "complete -C '${row%%:*}'" | cut -f 1 | grep -qxF -- "${row##*:}" || fail "fish does not complete ${row%%:*}"
done
[ -z "$(fish -c "complete -C 'tarn library remove l'")" ] || fail "fish completes what is no command there"

tell "... the demo"
"${as_user[@]}" tarn demo >"$log" 2>&1 || fail "$(tail -n 20 "$log")"
[ "$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 tarn-demo.mp4 | sort | xargs)" = "aac h264" ] ||
  fail "the demo made no video"
"$(dpkg -L tarn | grep '/tarn-poster$')" <tarn-demo.mp4 | ffprobe -v error -show_entries stream=codec_name -of csv=p=0 - |
  grep -qx mjpeg || fail "there are no posters"

tell "... the service"
unit=$(dpkg -L tarn | grep '/tarn.service$')
[ "$(dirname "$unit")" = /usr/lib/systemd/user ] || fail "systemd does not find $unit"
XDG_RUNTIME_DIR=$runtime systemd-analyze --user verify "$unit" 2>"$log" || fail "$(cat "$log")"
grep -qx 'SuccessExitStatus=130' "$unit" || fail "a stop would be a failure"
command=$(sed -n "s#\${TARN_PORT}#0#; s#%t#$runtime#; s/^ExecStart=//p" "$unit")
mkdir -m 700 "$runtime/tarn"
chown -R user "$runtime"
# shellcheck disable=SC2086
"${as_user[@]}" $command >/tmp/journal.txt 2>&1 &
server=$!
until [ -s "$runtime/tarn/address" ]; do
  kill -0 "$server" 2>/dev/null || fail "serve: $(cat /tmp/journal.txt)"
  sleep 0.05
done
[ "$(stat -c '%a %U' "$runtime/tarn/address")" = "600 user" ] || fail "others can read the address"
address=$(cat "$runtime/tarn/address")
base=$(curl -sf -c /tmp/cookies.txt "$address" | sed -n 's/.*url=\([^"]*\)".*/\1/p')
for row in ':<script src="bridge/native.js' 'bridge/native.js:PluginHeaders' 'app.js:PluginHeaders'; do
  curl -sf -b /tmp/cookies.txt "${address%%/\?*}$base${row%%:*}" >/tmp/served.txt || fail "there is no ${row%%:*}"
  grep -qF "${row#*:}" /tmp/served.txt || fail "another ${row%%:*}"
done
kill "$server"
status=0
wait "$server" || status=$?
server=
[ "$status" -eq 130 ] || fail "serve ended with $status"
! grep -qF "${address##*=}" /tmp/journal.txt || fail "the token is in the journal"
[ ! -e "$runtime/tarn/address" ] || fail "the address outlives the server"

tell "... the example, by find_package and by pkg-config"
install "$here"/libtarn*.deb g++ cmake ninja-build pkg-config
packages=$(dpkg-query -W -f='${db:Status-Abbrev}${Package}\n' '*tarn*' | sed -n 's/^ii *//p')
[ "$(wc -w <<<"$packages")" -eq 3 ] || fail "installed: $packages"
# shellcheck disable=SC2086
dpkg -L $packages | sort -u >/tmp/files.txt
[ "$(ldconfig -p | grep -c "libtarn.so.${version%.*} ")" -eq 1 ] || fail "the library is not found by its name"
quietly cmake -S "$here/examples" -B by-cmake -G Ninja
quietly ninja -C by-cmake
# shellcheck disable=SC2046
quietly g++ -std=c++20 -Wall -Wextra -Werror "$here/examples/repair.cpp" -o by-pkg-config $(pkg-config --cflags --libs tarn)
quietly ffmpeg -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 -c:v libx264 -tag:v avc3 -bsf:v dump_extra clip.mp4
for program in by-cmake/repair ./by-pkg-config; do
  quietly "$program" clip.mp4 out.mp4
  grep -qx "libtarn $version" "$log" || fail "$program is another version"
  [ "$(ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 out.mp4)" = avc1 ] || fail "$program repairs nothing"
  rm out.mp4
done

tell "... removing"
userdel --remove user 2>/dev/null
rm -r "$runtime"
# shellcheck disable=SC2086
quietly apt-get purge -y $packages
while read -r file; do
  [ ! -e "$file" ] || [ -d "$file" ] || fail "$file stays"
done </tmp/files.txt
# Caches of others expire by themselves.
left=$(find / -xdev \( -path "$here" -o -path /proc -o -path /var/cache \) -prune -o -iname '*tarn*' -print)
[ -z "$left" ] || fail "$left stays"
