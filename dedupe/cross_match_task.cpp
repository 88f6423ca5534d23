#include "dedupe/cross_match_task.hpp"

#include <algorithm>
#include <map>
#include <set>

#include "dedupe/dedupe_error.hpp"
#include "dedupe/email_tag.hpp"
#include "dedupe/filler_values.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/snapshot_task.hpp"
#include "connections/ascii.hpp"

namespace corvane {

CrossMatchError CrossMatchError::otherOrg(const std::string& orgId, const std::string& otherOrgId) {
  return {Kind::otherOrg, "These snapshots come from two different orgs (" + orgId + " and " +
                              otherOrgId +
                              "), so their records cannot be the same. Download both from the "
                              "same login and match again."};
}

CrossMatchError CrossMatchError::sameObject(const std::string& objectLabel) {
  return {Kind::sameObject,
          "Both snapshots hold " + objectLabel +
              " records. To find duplicates within one object, run: corvane dedupe match "
              "SNAPSHOT (without --against)."};
}

CrossMatchError CrossMatchError::nothingInCommon(const std::string& label,
                                                 const std::string& otherLabel) {
  return {Kind::nothingInCommon,
          "The " + label + " and " + otherLabel +
              " snapshots share no field to compare: they need an e-mail field each, or a "
              "name field each with a company or phone field each. Download them again with "
              "--match naming such fields (for Contacts, Account.Name:companyName gives the "
              "company)."};
}

namespace CrossMatchTask {

namespace {

std::string lowered(std::string_view text) { return Ascii::lowered(text); }

// First names before middle names before the rest, so that "FirstName,
// LastName" on one side reads like "Name" on the other.
int nameRank(const std::string& fieldName) {
  std::string name = lowered(fieldName);
  if (auto dot = name.rfind('.'); dot != std::string::npos) name.erase(0, dot + 1);
  if (name.find("first") != std::string::npos) return 0;
  if (name.find("middle") != std::string::npos) return 1;
  return 2;
}

std::string pluralLabel(const SnapshotInfo& info) {
  const std::string label = info.objectLabel.empty() ? info.objectName : info.objectLabel;
  return label + "s";
}

std::string singularLabel(const SnapshotInfo& info) {
  return info.objectLabel.empty() ? info.objectName : info.objectLabel;
}

}  // namespace

CrossMatcher::Side readSide(RecordStore& store, const MatchSettings& settings,
                            std::vector<Rid>& rids, std::string* companyFrom) {
  using CrossMatcher::Role;
  const std::vector<MatchField>& fields = store.matchFields();
  std::vector<std::size_t> nameFields, companyFields, emailFields, phoneFields;
  CrossMatcher::Side side;
  for (std::size_t f = 0; f < fields.size(); ++f) {
    const std::optional<Role> role = CrossMatcher::roleOf(fields[f].kind);
    if (!role) continue;
    const bool close = fields[f].mode == MatchMode::close;
    switch (*role) {
      case Role::name: nameFields.push_back(f); side.closeName |= close; break;
      case Role::company: companyFields.push_back(f); side.closeCompany |= close; break;
      case Role::email: emailFields.push_back(f); side.closeEmail |= close; break;
      case Role::phone: phoneFields.push_back(f); side.closePhone |= close; break;
    }
  }
  std::stable_sort(nameFields.begin(), nameFields.end(), [&](std::size_t x, std::size_t y) {
    return nameRank(fields[x].name) < nameRank(fields[y].name);
  });
  std::optional<std::size_t> companyExtra;
  if (companyFields.empty()) {
    const std::vector<std::string>& extras = store.extraFields();
    for (std::size_t e = 0; e < extras.size(); ++e) {
      if (lowered(extras[e]) == lowered(accountNameField)) companyExtra = e;
    }
    if (companyExtra && companyFrom) *companyFrom = extras[*companyExtra];
    side.closeCompany = true;  // an account name is compared as a close company name
  }
  side.hasName = !nameFields.empty();
  side.hasCompany = !companyFields.empty() || companyExtra.has_value();
  side.emails.resize(emailFields.size());
  side.phones.resize(phoneFields.size());

  const auto known = [&settings](std::string_view value) {
    if (value.empty()) return std::string_view();
    if (settings.treatFillerAsBlank &&
        FillerValues::shouldIgnore(value, settings.valuesTreatedAsReal,
                                   settings.valuesTreatedAsBlank)) {
      return std::string_view();
    }
    return value;
  };
  const auto joined = [&known](const std::vector<std::string_view>& values,
                               const std::vector<std::size_t>& slots) {
    std::string text;
    for (const std::size_t f : slots) {
      const std::string_view value = f < values.size() ? known(values[f]) : std::string_view();
      if (value.empty()) continue;
      if (!text.empty()) text.push_back(' ');
      text.append(value);
    }
    return text;
  };
  store.scanNormalized([&](Rid rid, const std::vector<std::string_view>& values) {
    rids.push_back(rid);
    if (side.hasName) side.name.append(joined(values, nameFields));
    if (!companyFields.empty()) side.company.append(joined(values, companyFields));
    for (std::size_t i = 0; i < emailFields.size(); ++i) {
      side.emails[i].append(emailFields[i] < values.size() ? known(values[emailFields[i]]) : "");
    }
    for (std::size_t i = 0; i < phoneFields.size(); ++i) {
      side.phones[i].append(phoneFields[i] < values.size() ? known(values[phoneFields[i]]) : "");
    }
  });
  if (companyExtra) {
    // Both scans run in rid order over the same rows.
    std::size_t position = 0;
    store.scanExtra(*companyExtra, [&](Rid rid, std::string_view raw) {
      while (position < rids.size() && rids[position] < rid) {
        side.company.append({});
        ++position;
      }
      if (position < rids.size() && rids[position] == rid) {
        side.company.append(known(Normalizer::normalize(raw, MatchKind::companyName)));
        ++position;
      }
    });
    while (side.company.size() < rids.size()) side.company.append({});
  }
  for (const FlatColumn& column : side.emails) side.taggedEmail |= EmailTag::columnHasTags(column);
  return side;
}

Outcome run(const std::filesystem::path& snapshot, const std::filesystem::path& against,
            const MatchSettings& settings, std::stop_token stop,
            const DedupeProgressHandler& onProgress) {
  const auto report = [&onProgress](const std::string& text, std::int64_t done,
                                    std::int64_t total) {
    if (onProgress) onProgress({DedupeProgress::Phase::matching, done, total, 0, {}, text});
  };
  auto first = SnapshotTask::open(snapshot);
  auto second = SnapshotTask::open(against);
  Outcome outcome;
  outcome.snapshot = first->info();
  outcome.against = second->info();
  const SnapshotInfo& a = outcome.snapshot;
  const SnapshotInfo& b = outcome.against;
  if (!a.orgId.empty() && !b.orgId.empty() && a.orgId != b.orgId) {
    throw CrossMatchError::otherOrg(a.orgId, b.orgId);
  }
  if (lowered(a.objectName) == lowered(b.objectName)) {
    throw CrossMatchError::sameObject(singularLabel(a));
  }

  report("Reading your local copies", 0, 0);
  std::vector<Rid> ridsA, ridsB;
  const CrossMatcher::Side sideA = readSide(*first, settings, ridsA);
  const CrossMatcher::Side sideB = readSide(*second, settings, ridsB, &outcome.companyFrom);
  if (stop.stop_requested()) throw DedupeError::stopped();
  using CrossMatcher::Role;
  for (Role role : {Role::email, Role::name, Role::company, Role::phone}) {
    if (sideA.has(role) && sideB.has(role)) outcome.compared.push_back(role);
  }
  const auto both = [&](Role role) { return sideA.has(role) && sideB.has(role); };
  if (!both(Role::email) && !(both(Role::name) && (both(Role::company) || both(Role::phone)))) {
    throw CrossMatchError::nothingInCommon(singularLabel(a), singularLabel(b));
  }
  if (!both(Role::company)) outcome.companyFrom.clear();

  CrossMatcher::Outcome found = CrossMatcher::find(
      sideA, sideB, settings, pluralLabel(b), report, [&stop] { return stop.stop_requested(); });
  if (found.cancelled || stop.stop_requested()) throw DedupeError::stopped();
  outcome.comparisons = found.comparisons;

  std::set<Rid> wantedA, wantedB;
  for (const CrossMatcher::Pair& pair : found.pairs) {
    wantedA.insert(ridsA[pair.a]);
    wantedB.insert(ridsB[pair.b]);
  }
  std::map<Rid, SnapshotRecord> recordsA, recordsB;
  for (SnapshotRecord& record : first->records({wantedA.begin(), wantedA.end()}))
    recordsA.emplace(record.rid, std::move(record));
  for (SnapshotRecord& record : second->records({wantedB.begin(), wantedB.end()}))
    recordsB.emplace(record.rid, std::move(record));
  outcome.recordsMatched = static_cast<std::int64_t>(wantedA.size());
  for (const CrossMatcher::Pair& pair : found.pairs) {
    Pair entry;
    entry.record = recordsA[ridsA[pair.a]];
    entry.match = recordsB[ridsB[pair.b]];
    entry.score = pair.score;
    entry.agreements = pair.agreements;
    entry.differences = pair.differences;
    entry.why = CrossMatcher::why(pair);
    outcome.pairs.push_back(std::move(entry));
  }
  return outcome;
}

}  // namespace CrossMatchTask
}  // namespace corvane
