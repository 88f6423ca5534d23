#!/usr/bin/env bash
# Kills `corvane backup run` with SIGKILL at 20 random moments of a full backup
# with files of the sample org (over 20,000 records, 200 documents), resumes
# each time, and checks that the finished copy's CSV files hold the same rows as
# an uninterrupted run's (byte for byte, as sets of rows), that known_ids holds
# every id once, and that every document is in Files with its MD5 digest.
#
#   bench/backup_kill_resume.sh [BUILD_DIR] [KILLS]
#
# BUILD_DIR must hold app/corvane, tools/orgsim/corvane-orgsim and
# tools/orgsim/sf/sf (default: build-run-rel). Prints one line per kill and
# "PASS" or "FAIL" at the end; exits non-zero on a difference.
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$here/build-run-rel}" && pwd)"
kills="${2:-20}"
corvane="$build/app/corvane"
orgsim="$build/tools/orgsim/corvane-orgsim"
sf="$build/tools/orgsim/sf/sf"
for tool in "$corvane" "$orgsim" "$sf"; do
  [[ -x "$tool" ]] || { echo "missing $tool: build it first" >&2; exit 2; }
done

work="$(mktemp -d)"
server=""
cleanup() {
  [[ -n "$server" ]] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

export HOME="$work/home" XDG_DATA_HOME="$work/data" CORVANE_SF_PATH="$sf"
mkdir -p "$HOME"
"$orgsim" generate --out "$work/org" --scale tiny --size Account=12000 --size Contact=8000 \
  --size Task=4000 --size ContentDocument=200 >/dev/null 2>&1
"$orgsim" serve --state "$work/org" --port 0 >"$work/serve.out" 2>"$work/serve.err" &
server=$!
for _ in $(seq 100); do grep -q listening "$work/serve.out" && break; sleep 0.1; done
url="$(sed -n 's/.* listening on //p' "$work/serve.out")"
SF_ACCESS_TOKEN="$("$orgsim" token --state "$work/org")" \
  "$sf" org login access-token --instance-url "$url" --alias sample --no-prompt --json >/dev/null

only="Account,Contact,Task,User,ContentVersion,Attachment"
backup() { "$corvane" backup run sample --root "$1" --only "$only" --json; }

start=$(date +%s.%N)
backup "$work/whole" >/dev/null 2>&1
took=$(echo "$(date +%s.%N) - $start" | bc)
echo "uninterrupted run: ${took}s"

killed=0
i=0
# Until `kills` kills have landed in a running backup (a run that finished
# before its kill does not count; the next one is a new full run).
while [[ $killed -lt $kills && $i -lt $((kills * 3)) ]]; do
  i=$((i + 1))
  # The program itself, not a shell function around it: the kill must reach it.
  "$corvane" backup run sample --root "$work/killed" --only "$only" --json >/dev/null 2>&1 &
  pid=$!
  # Short pauses, so that most kills fall inside the one resumed run.
  pause=$(python3 -c "import random; print(round(random.uniform(0.2, $took / 3), 2))")
  sleep "$pause"
  if kill -9 "$pid" 2>/dev/null; then
    echo "kill $i after ${pause}s"
    killed=$((killed + 1))
  else
    echo "kill $i: the run had finished after ${pause}s"
  fi
  wait "$pid" 2>/dev/null || true
done
# Kills before any progress count as stops at the same point; after the third
# the run is given up and the next one starts afresh.
for _ in 1 2 3; do
  if backup "$work/killed" >/dev/null 2>&1; then break; fi
done

# The last run's dated folder, from last-run.json.
folder() {
  local last
  last="$(find "$1" -name last-run.json | head -1)"
  echo "$(dirname "$last")/$(python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['folder'])" "$last")"
}
expected="$(folder "$work/whole")"
resumed="$(folder "$work/killed")"
status=0
for csv in "$expected"/*.csv; do
  name="$(basename "$csv")"
  [[ "$name" == Deleted.csv || "$name" == Files.csv || "$name" == FileLinks.csv ]] && continue
  if ! cmp -s <(sort "$csv") <(sort "$resumed/$name"); then
    echo "DIFFERENT: $name"
    status=1
  fi
done
ids() {
  sqlite3 "$(find "$1" -name backup.sqlite | head -1)" \
    "SELECT object, COUNT(*), COUNT(DISTINCT id) FROM known_ids GROUP BY object ORDER BY object"
}
if [[ "$(ids "$work/whole")" != "$(ids "$work/killed")" ]]; then
  echo "known_ids differ:"; diff <(ids "$work/whole") <(ids "$work/killed") || true
  status=1
fi
ids "$work/killed" | awk -F'|' '$2 != $3 { print "duplicate ids in " $1; bad = 1 } END { exit bad }' ||
  status=1
# Every document version listed is in Files, whole, with the digest Salesforce gave.
if ! python3 - "$expected" "$resumed" <<'PY'
import csv, hashlib, os, sys
def listed(folder):
    with open(os.path.join(folder, "Files.csv"), newline="", encoding="utf-8") as f:
        return {r["Id"]: r for r in csv.DictReader(f)}
whole, killed = listed(sys.argv[1]), listed(sys.argv[2])
files = os.path.join(os.path.dirname(sys.argv[2]), "Files")
def digest(name):
    path = os.path.join(files, name)
    return hashlib.md5(open(path, "rb").read()).hexdigest() if os.path.exists(path) else None
wanted = [i for i, r in whole.items() if r["Downloaded"] == "true"]
bad = [i for i in wanted
       if i not in killed or killed[i]["Downloaded"] != "true"
       or digest(killed[i]["NameOnDisk"]) is None
       or (killed[i]["Checksum"] and digest(killed[i]["NameOnDisk"]) != killed[i]["Checksum"].lower())]
documents = {whole[i]["DocumentId"] for i in wanted if whole[i]["Object"] == "ContentVersion"}
print(f"{len(wanted)} bodies ({len(documents)} documents) downloaded by the whole run; "
      f"{len(wanted) - len(bad)} present after the kills with their MD5")
for i in bad[:10]:
    print("MISSING OR DIFFERENT:", i)
sys.exit(1 if bad or len(documents) < 200 else 0)
PY
then
  status=1
fi
echo "$killed kills"
[[ $status -eq 0 ]] && echo PASS || echo FAIL
exit $status
