#!/usr/bin/env bash
# The Slurm recipe of docs/scale-out.md run for real: a one-node Slurm (the
# controller and the node daemon on loopback, MUNGE for authentication, all
# state, sockets and logs in a temporary folder) takes the job script as
# users get it, and the file its tasks merge must hold the pages of one
# whole rip byte for byte.
#
# usage: zt_slurm_test.sh ZT ZT_TOOL_CHECK JOB_SCRIPT
# Exits 77 (skipped) where Slurm or MUNGE is not installed.
set -uo pipefail
zt=$1
check=$2
job_script=$3
source "${BASH_SOURCE[0]%/*}/same_pages.sh"

skip() {
  echo "SKIP: $*"
  exit 77
}
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# The daemons live in sbin, which a user's PATH may lack.
export PATH=$PATH:/usr/sbin:/sbin
for tool in slurmctld slurmd sbatch squeue sinfo scontrol scancel munged mungekey tiffinfo flock setsid; do
  command -v "$tool" >/dev/null ||
    skip "$tool not found; Debian's slurm-wlm, munge and libtiff-tools bring what this test needs (scripts/deps.sh)"
done

# Everything the daemons touch lives here. MUNGE insists that every folder
# above its socket is searchable by all.
work=$(mktemp -d /tmp/zt-slurm-test.XXXXXX)
chmod 755 "$work"
mkdir -p "$work/state" "$work/spool" "$work/log" "$work/shared" "$work/cache"
pids=$work/daemons.pid
: >"$pids"

# Kills whatever of this test still runs: the daemons, then the job steps and
# rips, which slurmd starts outside this process tree. Those carry the
# marker below in their environment (sbatch passes it on), which names this
# run's folder and nothing else.
reap_leftovers() {
  local work=$1 pid env
  for pid in $(cat "$work/daemons.pid" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null; done
  for env in /proc/[0-9]*/environ; do
    pid=${env#/proc/}
    pid=${pid%/environ}
    [[ $pid == "$$" || $pid == "$BASHPID" ]] && continue
    grep -qzx "ZT_SLURM_TEST=$work" "$env" 2>/dev/null && kill -KILL "$pid" 2>/dev/null
  done
  rm -rf "$work"
}
stop_all() {
  trap - EXIT INT TERM HUP
  if [[ -n ${job_id:-} ]]; then
    scancel "$job_id" 2>/dev/null
    for _ in $(seq 50); do
      [[ -z $(squeue -h -j "$job_id" -o %i 2>/dev/null) ]] && break
      sleep 0.2
    done
  fi
  local pid alive
  for pid in $(tac "$pids" 2>/dev/null); do kill -TERM "$pid" 2>/dev/null; done
  for _ in $(seq 50); do
    alive=0
    for pid in $(cat "$pids" 2>/dev/null); do kill -0 "$pid" 2>/dev/null && alive=1; done
    [[ $alive -eq 0 ]] && break
    sleep 0.1
  done
  reap_leftovers "$work"
  wait 2>/dev/null
}
trap stop_all EXIT
trap 'exit 1' INT TERM HUP
# ctest ends a test that overruns with SIGKILL, which no trap sees. A watcher
# outside this process tree (and without the marker) does the same once this
# shell is gone.
setsid -f bash -c "$(declare -f reap_leftovers)"'
  while kill -0 "$1" 2>/dev/null; do sleep 1; done
  [[ -d $2 ]] && reap_leftovers "$2"' zt-slurm-test-watch $$ "$work" </dev/null >/dev/null 2>&1
export ZT_SLURM_TEST=$work
export XDG_CACHE_HOME=$work/cache

# Every wait is bounded, and all of them together stay well inside the
# test's time limit, so that the clean-up above runs on the normal path.
deadline=$((SECONDS + 180))
# wait_for SECONDS COMMAND...: polls COMMAND until it succeeds; 1 on timeout.
wait_for() {
  local until=$((SECONDS + $1))
  shift
  ((until < deadline)) || until=$deadline
  until "$@"; do
    ((SECONDS < until)) || return 1
    sleep 0.5
  done
}
logs() { tail -n 20 "$work"/log/*.log >&2; }

# ---- MUNGE ----------------------------------------------------------------------
mungekey --create --keyfile="$work/munge.key" 2>"$work/log/mungekey.log" || fail "mungekey: $(cat "$work/log/mungekey.log")"
munged --foreground --socket="$work/munge.sock" --key-file="$work/munge.key" \
  --pid-file="$work/munged.pid" --log-file="$work/log/munged.log" --seed-file="$work/munged.seed" \
  </dev/null >"$work/log/munged.out" 2>&1 &
echo $! >>"$pids"
wait_for 10 test -S "$work/munge.sock" || { logs; fail "munged did not start"; }

# ---- Slurm: one node on loopback --------------------------------------------------
read -r ctld_port node_port < <(python3 -c '
import socket
socks = [socket.socket() for _ in range(2)]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(*(s.getsockname()[1] for s in socks))')
# The node as slurmd sees it: CPUs, their layout and memory.
hw=$(slurmd -C | head -1 | tr ' ' '\n' | grep -E '^(CPUs|Boards|SocketsPerBoard|CoresPerSocket|ThreadsPerCore|RealMemory)=' | tr '\n' ' ')
cpus=$(sed -n 's/.*CPUs=\([0-9]*\).*/\1/p' <<<"$hw")
[[ -n $cpus ]] || fail "slurmd -C did not describe this machine: $(slurmd -C 2>&1 | head -c 300)"
# The daemons run as whoever runs the test: jobs of that same user need no
# root.
user=$(id -un)
export SLURM_CONF=$work/slurm.conf
cat >"$SLURM_CONF" <<CONF
ClusterName=zt-test
SlurmctldHost=localhost(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$node_port
SlurmUser=$user
SlurmdUser=$user
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$work/munge.sock
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/log/slurmctld.log
SlurmdLogFile=$work/log/slurmd.log
MailProg=/bin/true
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
MpiDefault=none
ReturnToService=2
SchedulerType=sched/backfill
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
JobAcctGatherType=jobacct_gather/none
NodeName=localhost NodeAddr=127.0.0.1 $hw State=UNKNOWN
PartitionName=rip Nodes=localhost Default=YES MaxTime=10 State=UP
CONF
slurmctld -D -f "$SLURM_CONF" </dev/null >"$work/log/slurmctld.out" 2>&1 &
echo $! >>"$pids"
slurmd -D -N localhost -f "$SLURM_CONF" </dev/null >"$work/log/slurmd.out" 2>&1 &
echo $! >>"$pids"
node_idle() { [[ $(sinfo -h -n localhost -o %T 2>/dev/null) == idle ]]; }
wait_for 30 node_idle || { logs; fail "the node did not come up idle: $(sinfo -h -n localhost -o %T 2>&1)"; }

# ---- the job ------------------------------------------------------------------------
# Five pages over four tasks: slices of two, two and one page, and a task with
# nothing to rip.
"$check" gen tif rgb 8 96 64 "$work/shared/job.tif" pages 5 || fail "cannot write the input"
tasks=4
# A machine of one CPU cannot give a task the two the script asks for.
cpu_option=()
((cpus < 2)) && cpu_option=(--cpus-per-task="$cpus")
job_id=$(SHARED=$work/shared INPUT=$work/shared/job.tif ZT=$zt \
  sbatch --parsable "${cpu_option[@]}" --array=0-$((tasks - 1)) --chdir="$work/shared" "$job_script" 2>"$work/log/sbatch.err")
[[ $job_id =~ ^[0-9]+$ ]] || fail "sbatch: $(cat "$work/log/sbatch.err")"
array_done() { [[ -z $(squeue -h -j "$job_id" -o %i 2>/dev/null) ]]; }
wait_for 120 array_done || { logs; fail "the job array did not finish: $(squeue -h -j "$job_id" 2>&1)"; }
states=$(scontrol -o show job "$job_id" | grep -o 'JobState=[A-Z_]*' | sort | uniq -c | tr -s ' ')
if [[ $states != " $tasks JobState=COMPLETED" ]]; then
  for f in "$work"/shared/*.log; do
    echo "--- $f" >&2
    tail -n 5 "$f" >&2
  done
  fail "array tasks ended as: $states"
fi
[[ -f $work/shared/job.vlimg ]] || fail "no task merged the slices into job.vlimg: $(ls "$work/shared/slices")"
n_slices=$(ls "$work/shared/slices" | wc -l)
[[ $n_slices -eq 3 ]] || fail "$n_slices slices, wanted 3: $(ls "$work/shared/slices")"

# ---- the same pages as one rip of the whole input -------------------------------------
"$zt" rip "$work/shared/job.tif" -o "$work/whole.vlimg" --quiet || fail "whole rip"
differences=$(same_pages "$zt" "$work/whole.vlimg" "$work/shared/job.vlimg" "$work") ||
  fail "merged by the job array: $differences"
echo "job $job_id: $tasks tasks, 3 slices merged, 5 pages identical to one whole rip"
