#!/usr/bin/env bash
# Undoes a mass delete with purge of the sample org (about 500 Accounts, 1,500
# Contacts and 50 documents on them; the generator links its documents to other
# records too) with `corvane backup restore --deleted
# --with-children`, killing the program with SIGKILL at random moments and
# starting it again until a run ends by itself. Then checks, through the
# restore journal's old id -> new id mapping: every record back once, every
# Contact on its own restored Account, every document uploaded once with its
# MD5 digest and linked to each of its restored records; and a further run says
# that nothing is left.
#
#   bench/restore_kill_resume.sh [BUILD_DIR] [MAX_TRIES]
#
# BUILD_DIR must hold app/corvane, tools/orgsim/corvane-orgsim and
# tools/orgsim/sf/sf (default: build/release). Prints one line per try, the
# kills landed, the tries and the time, and "PASS" or "FAIL"; exits non-zero
# on a fault.
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$here/build/release}" && pwd)"
tries="${2:-60}"
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
"$orgsim" generate --out "$work/org" --scale tiny --size Account=500 --size Contact=1500 \
  --size ContentDocument=110 >/dev/null 2>&1
"$orgsim" serve --state "$work/org" --port 0 >"$work/serve.out" 2>"$work/serve.err" &
server=$!
for _ in $(seq 100); do grep -q listening "$work/serve.out" && break; sleep 0.1; done
url="$(sed -n 's/.* listening on //p' "$work/serve.out")"
token="$("$orgsim" token --state "$work/org")"
SF_ACCESS_TOKEN="$token" \
  "$sf" org login access-token --instance-url "$url" --alias sample --no-prompt --json >/dev/null

only="Account,Contact,ContentVersion,ContentDocumentLink"
"$corvane" backup run sample --root "$work/backups" --kind full --only "$only" --json >/dev/null

# What the org holds before the delete, then the delete and the purge.
python3 - "$url" "$token" "$work/before.json" <<'PY'
import json, sys, urllib.parse, urllib.request
url, token, out = sys.argv[1:]
def call(method, path, body=None):
    request = urllib.request.Request(url + path, method=method,
        data=None if body is None else json.dumps(body).encode(),
        headers={"Authorization": "Bearer " + token, "Content-Type": "application/json"})
    with urllib.request.urlopen(request) as reply:
        return json.load(reply)
def query(soql):
    page = call("GET", "/services/data/v62.0/query?q=" + urllib.parse.quote(soql))
    rows = list(page["records"])
    while not page.get("done", True):
        page = call("GET", page["nextRecordsUrl"])
        rows += page["records"]
    return rows
accounts = [r["Id"] for r in query("SELECT Id FROM Account")]
contacts = {r["Id"]: r["AccountId"] for r in query("SELECT Id, AccountId FROM Contact")}
versions = {r["ContentDocumentId"]: {"id": r["Id"], "checksum": r["Checksum"], "title": r["Title"]}
            for r in query("SELECT Id, ContentDocumentId, Title, Checksum FROM ContentVersion "
                           "WHERE IsLatest = true")}
restored = set(accounts) | {c for c, a in contacts.items() if a in set(accounts)}
links = {}
for document in versions:
    linked = [r["LinkedEntityId"] for r in
              query(f"SELECT LinkedEntityId FROM ContentDocumentLink WHERE ContentDocumentId = '{document}'")]
    mine = sorted(set(linked) & restored)
    if mine:
        links[document] = mine
json.dump({"accounts": accounts, "contacts": contacts, "versions": versions, "links": links},
          open(out, "w"))
ids = accounts + list(contacts)
for at in range(0, len(ids), 500):
    call("POST", "/_admin/records/delete", {"ids": ids[at:at + 500]})
# A day later, when the backups look for deletions again.
call("POST", "/_admin/clock", {"advanceSeconds": 25 * 3600})
print(f"deleting {len(accounts)} Accounts and {len(contacts)} Contacts; "
      f"{len(links)} documents on them")
PY
# The clock's jump ended the session: log in again.
token="$("$orgsim" token --state "$work/org")"
SF_ACCESS_TOKEN="$token" \
  "$sf" org login access-token --instance-url "$url" --alias sample --no-prompt --json >/dev/null
# The backups see the delete; then the Recycle Bin is emptied.
"$corvane" backup run sample --root "$work/backups" --kind changes --only "$only" --json >/dev/null
curl -sf -X POST -H 'Content-Type: application/json' -d '{"object": "Account"}' \
  "$url/_admin/records/purge" >/dev/null
curl -sf -X POST -H 'Content-Type: application/json' -d '{"object": "Contact"}' \
  "$url/_admin/records/purge" >/dev/null

restore() {
  "$corvane" backup restore sample --object Account --deleted --with-children \
    --root "$work/backups" --yes --json
}

killed=0
i=0
ended=""
start=$(date +%s.%N)
while [[ $i -lt $tries ]]; do
  i=$((i + 1))
  # The program itself, not a shell function around it: the kill must reach it.
  "$corvane" backup restore sample --object Account --deleted --with-children \
    --root "$work/backups" --yes --json >"$work/last.json" 2>"$work/last.err" &
  pid=$!
  # Each try may run a little longer than the one before, so that the
  # kills fall in every phase and a run ends in the end however slow the build.
  pause=$(python3 -c "import random; print(round(random.uniform(0.2, 1.5 + $i * 0.4), 2))")
  sleep "$pause"
  if kill -9 "$pid" 2>/dev/null; then
    wait "$pid" 2>/dev/null || true
    echo "try $i: killed after ${pause}s"
    killed=$((killed + 1))
  else
    code=0
    wait "$pid" || code=$?
    echo "try $i: ended by itself (exit $code) within ${pause}s"
    if [[ $code -eq 0 ]]; then ended=yes; break; fi
  fi
done
took=$(echo "$(date +%s.%N) - $start" | bc)
status=0
if [[ -z "$ended" ]]; then
  echo "the restore never ended by itself"; cat "$work/last.err"; status=1
fi
restore >"$work/again.json" 2>/dev/null || status=1

journal="$XDG_DATA_HOME/Corvane/Restore/journal.sqlite"
if ! python3 - "$url" "$token" "$work/before.json" "$journal" "$work/again.json" <<'PY'
import json, sqlite3, sys, urllib.parse, urllib.request
url, token, before, journal, again = sys.argv[1:]
def call(path):
    request = urllib.request.Request(url + path, headers={"Authorization": "Bearer " + token})
    with urllib.request.urlopen(request) as reply:
        return json.load(reply)
def query(soql):
    page = call("/services/data/v62.0/query?q=" + urllib.parse.quote(soql))
    rows = list(page["records"])
    while not page.get("done", True):
        page = call(page["nextRecordsUrl"])
        rows += page["records"]
    return rows
was = json.load(open(before))
now = {}
states = {}
for key, old, new, state, action in sqlite3.connect(journal).execute(
        "SELECT key, old_id, new_id, state, action FROM restored"):
    states[state] = states.get(state, 0) + 1
    if state == "done" and action in ("create", "undelete", "upload"):
        now[old[:15]] = new
faults = []
accounts = {r["Id"] for r in query("SELECT Id FROM Account")}
contacts = {r["Id"]: r["AccountId"] for r in query("SELECT Id, AccountId FROM Contact")}
if len(accounts) != len(was["accounts"]):
    faults.append(f"{len(accounts)} Accounts live, {len(was['accounts'])} were")
wanted = {c: a for c, a in was["contacts"].items() if a in set(was["accounts"])}
if len(contacts) != len(wanted):
    faults.append(f"{len(contacts)} Contacts live, {len(wanted)} should be")
for old in was["accounts"]:
    if now.get(old[:15]) not in accounts:
        faults.append(f"Account {old} not back")
for contact, account in wanted.items():
    new = now.get(contact[:15])
    if new not in contacts:
        faults.append(f"Contact {contact} not back")
    elif contacts[new] != now.get(account[:15]):
        faults.append(f"Contact {contact} on {contacts[new]}, not on {now.get(account[:15])}")
documents = 0
for document, linked in was["links"].items():
    version = was["versions"][document]
    new = now.get(version["id"][:15])
    rows = query(f"SELECT ContentDocumentId, Checksum FROM ContentVersion WHERE Id = '{new}'") if new else []
    if not rows:
        faults.append(f"document {document} not uploaded"); continue
    if rows[0]["Checksum"] != version["checksum"]:
        faults.append(f"document {document}: MD5 {rows[0]['Checksum']}, was {version['checksum']}")
    links = [r["LinkedEntityId"] for r in query(
        f"SELECT LinkedEntityId FROM ContentDocumentLink WHERE ContentDocumentId = '{rows[0]['ContentDocumentId']}'")]
    if len(links) != len(set(links)):
        faults.append(f"document {document} linked twice to a record")
    for record in linked:
        if now.get(record[:15]) not in links:
            faults.append(f"document {document} not linked to {record}")
    documents += 1
# Uploads now, by title and digest, against the documents that were to come back.
expected = {}
for document in was["links"]:
    version = was["versions"][document]
    key = (version["title"], version["checksum"])
    expected[key] = expected.get(key, 0) + 1
copies = {}
for row in query("SELECT Title, Checksum, FirstPublishLocationId FROM ContentVersion"):
    if row["FirstPublishLocationId"] in accounts or row["FirstPublishLocationId"] in contacts:
        key = (row["Title"], row["Checksum"])
        copies[key] = copies.get(key, 0) + 1
faults += [f"{n} uploads of {t[0]}, {expected.get(t, 0)} expected"
           for t, n in copies.items() if n != expected.get(t, 0)]
if not json.load(open(again)).get("nothingLeft"):
    faults.append("a further run found something left to restore")
print(f"{len(accounts)} Accounts, {len(contacts)} Contacts, {documents} documents back; "
      f"journal: {states}")
for fault in faults[:20]:
    print("FAULT:", fault)
sys.exit(1 if faults else 0)
PY
then
  status=1
fi
echo "$killed kills landed in $i tries, ${took}s in all"
[[ $status -eq 0 ]] && echo PASS || echo FAIL
exit $status
