#!/usr/bin/env bash
# Two nodes of Slurm on this machine, from Debian's packages, all in a temporary folder: a job array repairs 200 files,
# of which 20 need it. One node dies in the middle. Shows that each result is there, once and whole.
# Usage: scripts/try-slurm.sh [TARN]
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh
tarn=$(readlink -f "${1:-build/release/tarn}")
files=200 bad=20 chunk=25 # tasks of 25 files: 8 of them
install_missing slurmctld slurmd slurm-client munge ffmpeg

place=$(mktemp -d)
export SLURM_CONF=$place/slurm.conf
daemons=()
# Each by its number: the tasks that run, the nodes, the controller, munge.
clean_up() {
  scancel --quiet --user="$(id -un)" 2>/dev/null || true
  for task in "$place"/tasks/*; do [ -f "$task" ] && end_task "$task"; done
  for pid in "${daemons[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${daemons[@]}"; do while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done; done
  rm -rf "$place"
}
trap clean_up EXIT

# start NAME COMMAND...: a daemon in the foreground, its output in NAME.log.
start() {
  local name=$1
  shift
  "$@" >"$place/$name.log" 2>&1 &
  daemons+=($!)
  disown
}

# until_true SECONDS WHAT COMMAND...
until_true() {
  local end=$((SECONDS + $1)) what=$2
  shift 2
  until "$@"; do
    [ $SECONDS -lt $end ] || fail "$what takes too long: $(tail -n 3 "$place"/*.log)"
    sleep 0.05
  done
}

# end_task FILE: kills the step daemon, the script and the command of a task.
end_task() {
  local step script
  read -r step script <"$1"
  [ "$(ps -o ppid= -p "$script" 2>/dev/null | tr -d ' ')" = "$step" ] || return 0 # it has ended
  kill -KILL "$step" -- "-$script" 2>/dev/null || true
}

make_files() {
  local i
  mkdir "$place/in" "$place/out" "$place/reports" "$place/tasks"
  local source="-f lavfi -i testsrc2=size=320x180:rate=25:duration=4 -f lavfi -i sine=duration=4 -c:v libx264 -c:a aac"
  # shellcheck disable=SC2086
  ffmpeg -v error $source "$place/good.mp4"
  # shellcheck disable=SC2086
  ffmpeg -v error $source -tag:v avc3 -bsf:v dump_extra "$place/bad.mp4"
  "$tarn" repair "$place/bad.mp4" -o "$place/mended.mp4" --quiet >/dev/null
  ! cmp -s "$place/bad.mp4" "$place/mended.mp4" || fail "the bad file needs no repair"
  for ((i = 0; i < files; ++i)); do
    cp "$place/$([ $((i % (files / bad))) -eq 7 ] && echo bad || echo good).mp4" "$place/in/clip$i.mp4"
  done
  find "$place/in" -name '*.mp4' | sort -V >"$place/list.txt"
  split --lines=$chunk --numeric-suffixes --suffix-length=2 "$place/list.txt" "$place/chunk."
}

start_cluster() {
  local host node
  host=$(hostname -s)
  (umask 077 && head -c 1024 /dev/urandom >"$place/munge.key")
  chmod 755 "$place"
  cat >"$SLURM_CONF" <<END
ClusterName=trial
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=16817
SlurmUser=$(id -un)
SlurmdUser=$(id -un)
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$place/munge.socket,cred_expire=5
StateSaveLocation=$place/state
SlurmdSpoolDir=$place/spool.%n
SlurmctldPidFile=$place/slurmctld.pid
SlurmdPidFile=$place/slurmd.%n.pid
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
MpiDefault=none
SlurmdTimeout=10
ReturnToService=2
NodeName=n1 NodeHostname=$host NodeAddr=127.0.0.1 Port=16818 CPUs=1 RealMemory=200
NodeName=n2 NodeHostname=$host NodeAddr=127.0.0.1 Port=16819 CPUs=1 RealMemory=200
PartitionName=all Nodes=n1,n2 Default=YES State=UP
END
  mkdir "$place/state"
  start munge munged --foreground --key-file="$place/munge.key" --socket="$place/munge.socket" \
    --pid-file="$place/munged.pid" --seed-file="$place/munged.seed" --log-file="$place/munged.log"
  until_true 20 "munge" test -S "$place/munge.socket"
  start slurmctld slurmctld -D -i
  for node in n1 n2; do start "slurmd.$node" slurmd -D -N $node; done
  until_true 60 "the start of the nodes" both_idle
}
both_idle() { [ "$(sinfo --noheader --Node --format=%T 2>/dev/null | grep -c '^idle$')" -eq 2 ]; }

# What docs/at-scale.md recommends, with the numbers of the task's processes, for the murder.
write_job() {
  cat >"$place/job.sh" <<END
#!/bin/bash
#SBATCH --job-name=tarn
#SBATCH --requeue
#SBATCH --open-mode=append
#SBATCH --output=$place/task.%a.log
number=\$(printf %02d "\$SLURM_ARRAY_TASK_ID")
echo "\$PPID \$\$" >"$place/tasks/\$SLURMD_NODENAME.\$number"
"$tarn" repair --files-from "$place/chunk.\$number" --output-dir "$place/out" --skip-done \\
  --report "$place/reports/\$number.jsonl" --jobs 1 &
wait \$!
code=\$?
rm "$place/tasks/\$SLURMD_NODENAME.\$number"
exit \$code
END
}

# Stops a task of the node n2 in the middle of its files; then the node dies with all that it runs.
kill_node() {
  until_true 60 "a task on n2 that is under way" stop_task
  kill -KILL "$(cat "$place/slurmd.n2.pid")"
  end_task "$stopped"
  until_true 20 "the death of its task" has_ended "$stopped"
  rm "$stopped"
}
stop_task() {
  local task number script
  for task in "$place"/tasks/n2.*; do
    read -r _ script 2>/dev/null <"$task" || continue
    number=${task##*.}
    [ -n "$script" ] && [ "$(results_of "$number")" -gt 2 ] || continue
    kill -STOP -- "-$script" 2>/dev/null || continue
    stopped=$task at_death=$(results_of "$number")
    [ "$at_death" -ge $chunk ] || return 0
    kill -CONT -- "-$script"
  done
  return 1
}
has_ended() {
  local script
  read -r _ script <"$1"
  ! kill -0 -- "-$script" 2>/dev/null
}
results_of() {
  local count=0 file
  while read -r file; do [ -e "$place/out/${file##*/}" ] && count=$((count + 1)); done <"$place/chunk.$1"
  echo $count
}
none_queued() { [ -z "$(squeue --noheader)" ]; }

check_results() {
  local i expected whole=0 repaired
  for ((i = 0; i < files; ++i)); do
    expected=$place/$(cmp -s "$place/in/clip$i.mp4" "$place/bad.mp4" && echo mended || echo good).mp4
    cmp -s "$place/out/clip$i.mp4" "$expected" && whole=$((whole + 1))
  done
  [ $whole -eq $files ] || fail "$whole of $files results are there and whole"
  [ "$(find "$place/out" -mindepth 1 | wc -l)" -eq $files ] || fail "more than the results: $(ls -A "$place/out")"
  [ "$(sed 's/.*"input":"\([^"]*\)".*/\1/' "$place"/reports/*.jsonl | sort | uniq | wc -l)" -eq $files ] ||
    fail "the reports do not tell of all files"
  repaired=$(cat "$place"/reports/*.jsonl | grep -c '"result":"repaired"') || true
  # Between a result and its line the node may have died.
  if [ "$repaired" -lt $((bad - 1)) ] || [ "$repaired" -gt $bad ]; then fail "the reports tell of $repaired repairs"; fi
  tell "$whole of $files results, each once and whole, $repaired told as repaired." \
    "The node died with $at_death of $chunk files of its task done."
}

make_files
start_cluster
write_job
began=$SECONDS
sbatch --quiet --array=0-$((files / chunk - 1)) "$place/job.sh"
tell "... $files files in $((files / chunk)) tasks on two nodes"
kill_node
tell "... one node is dead after $((SECONDS - began)) s; the other does its work"
until_true 180 "the array" none_queued
tell "... the array is done after $((SECONDS - began)) s"
[ "$(sinfo --noheader --Node --nodes=n2 --format=%T | tr -d '*')" = down ] || fail "the node did not die"
check_results
