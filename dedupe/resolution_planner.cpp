#include "dedupe/resolution_planner.hpp"

#include <algorithm>
#include <cctype>

#include "dedupe/merge_runner.hpp"

namespace corvane {

const SnapshotRecord* ResolvedGroup::keeper() const {
  for (const SnapshotRecord& record : records) {
    if (record.rid == keeperRid) return &record;
  }
  return nullptr;
}

std::vector<const SnapshotRecord*> ResolvedGroup::losers() const {
  std::vector<const SnapshotRecord*> out;
  for (const SnapshotRecord& record : records) {
    if (record.rid != keeperRid) out.push_back(&record);
  }
  return out;
}

bool ResolvedGroup::isMixed() const {
  for (const SnapshotRecord& record : records) {
    if (record.object != records.front().object) return true;
  }
  return false;
}

std::string ResolutionAction::text() const {
  switch (kind) {
    case Kind::merge: return "merge";
    case Kind::deleteLosers: return "deleteLosers";
    case Kind::fillGaps: return "fillGaps";
    case Kind::tagLosers: return "tag:" + fieldName;
    case Kind::exportOnly: return "exportOnly";
  }
  return "exportOnly";
}

std::optional<ResolutionAction> ResolutionAction::fromText(std::string_view text) {
  if (text == "merge") return merge();
  if (text == "deleteLosers") return deleteLosers();
  if (text == "fillGaps") return fillGaps();
  if (text == "exportOnly") return exportOnly();
  constexpr std::string_view tag = "tag:";
  if (text.substr(0, tag.size()) == tag && text.size() > tag.size()) {
    return tagLosers(std::string(text.substr(tag.size())));
  }
  return std::nullopt;
}

namespace ResolutionPlanner {

namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view kindWords(MatchKind kind) {
  switch (kind) {
    case MatchKind::text: return "text";
    case MatchKind::personName: return "person name";
    case MatchKind::companyName: return "company name";
    case MatchKind::email: return "email";
    case MatchKind::phone: return "phone";
  }
  return "text";
}

// The object of a record: its own in a multi-object snapshot, else the snapshot's.
std::string objectOf(const SnapshotRecord& record, const Context& context) {
  return record.object.empty() ? context.objectName : record.object;
}

const RecordStore::SnapshotObject* layoutOf(const std::string& object, const Context& context) {
  for (const auto& candidate : context.objects) {
    if (candidate.name == object) return &candidate;
  }
  return nullptr;
}

std::string labelOf(const std::string& object, const Context& context) {
  if (const auto* layout = layoutOf(object, context); layout && !layout->label.empty()) {
    return layout->label;
  }
  return object == context.objectName && !context.objectLabel.empty() ? context.objectLabel
                                                                       : object;
}

// The field API name and the record's value, slot by slot (match fields, then
// extra fields); slots this object does not fill are left out.
std::vector<std::pair<std::string, std::string>> namedValues(const SnapshotRecord& record,
                                                            const Context& context) {
  std::vector<std::pair<std::string, std::string>> out;
  const RecordStore::SnapshotObject* layout =
      context.objects.size() > 1 ? layoutOf(objectOf(record, context), context) : nullptr;
  for (std::size_t i = 0; i < record.values.size() && i < context.matchFields.size(); ++i) {
    std::string name = context.matchFields[i].name;
    if (layout) name = i < layout->sources.size() ? layout->sources[i] : std::string();
    if (!name.empty()) out.emplace_back(name, record.values[i]);
  }
  for (std::size_t j = 0; j < record.extras.size() && j < context.extraFields.size(); ++j) {
    std::string name = context.extraFields[j];
    if (layout) name = j < layout->extraSources.size() ? layout->extraSources[j] : std::string();
    if (!name.empty()) out.emplace_back(name, record.extras[j]);
  }
  return out;
}

const WritableField* writable(const std::string& object, std::string_view field,
                              const Context& context) {
  if (!context.writableFields) return nullptr;
  auto found = context.writableFields->find(object);
  if (found == context.writableFields->end()) return nullptr;
  for (const WritableField& candidate : found->second) {
    if (sameName(candidate.name, field)) return &candidate;
  }
  return nullptr;
}

// The values the kept record takes from the others: the user's chosen values
// (when a merge carries them), then, field by field, the value the field's
// rule picks (Context::keepValues) when it differs from the keeper's own.
// Filling gaps uses the keeper rule, so it never overwrites a value the
// keeper has. Only fields the object lets us write are considered.
struct KeeperValues {
  std::map<std::string, std::string> values;
  std::map<std::string, std::string> sources;  // field -> Id of the record the value is from
};

KeeperValues valuesForKeeper(const ResolvedGroup& group, const SnapshotRecord& keeper,
                             const Context& context, bool forMerge) {
  KeeperValues out;
  if (forMerge) out.values = group.chosenValues;
  const std::string object = objectOf(keeper, context);

  // The records of the keeper's object: in group order, and as the keeper
  // rule ranks them; the keeper first in both.
  std::vector<const SnapshotRecord*> inGroupOrder{&keeper};
  for (const SnapshotRecord* loser : group.losers()) {
    if (objectOf(*loser, context) == object) inGroupOrder.push_back(loser);
  }
  std::vector<const SnapshotRecord*> inRuleOrder{&keeper};
  for (std::size_t i : KeeperRules::ranked(group.records, context.keeperRule)) {
    const SnapshotRecord& record = group.records[i];
    if (record.rid != keeper.rid && objectOf(record, context) == object) {
      inRuleOrder.push_back(&record);
    }
  }
  std::map<const SnapshotRecord*, std::vector<std::pair<std::string, std::string>>> named;
  for (const SnapshotRecord* record : inGroupOrder) named[record] = namedValues(*record, context);
  const auto valueOf = [&named](const SnapshotRecord* record, const std::string& field) {
    for (const auto& [name, value] : named[record]) {
      if (name == field) return std::string_view(value);
    }
    return std::string_view();
  };

  for (const auto& [field, keeperValue] : named[&keeper]) {
    const WritableField* detail = writable(object, field, context);
    if (!detail || out.values.count(detail->name) > 0) continue;
    const ValueRule rule = forMerge ? context.keepValues.ruleFor(field) : ValueRule::keeper;
    const auto& order = rule == ValueRule::keeper ? inGroupOrder : inRuleOrder;
    std::vector<ValueRules::Candidate> candidates;
    for (const SnapshotRecord* record : order) {
      candidates.push_back({valueOf(record, field), record->modified});
    }
    const std::optional<std::size_t> picked = ValueRules::pick(rule, candidates);
    if (!picked || *picked == 0 || candidates[*picked].value == keeperValue) continue;
    out.values.emplace(detail->name, std::string(candidates[*picked].value));
    out.sources.emplace(detail->name, order[*picked]->sfid);
  }
  return out;
}

PlannedChange changeFor(const SnapshotRecord& record, std::int64_t groupId,
                        const Context& context) {
  PlannedChange change;
  change.sfid = record.sfid;
  change.modified = record.modified;
  change.groupId = groupId;
  change.object = objectOf(record, context);
  return change;
}

// The reason a group cannot be resolved by the action; none when it can.
std::optional<std::string> skipReason(const ResolvedGroup& group, const ResolutionAction& action,
                                      const Context& context) {
  const SnapshotRecord* keeper = group.keeper();
  if (!keeper && !group.chosenValues.empty()) return keeperGoneWithChosenValues();
  if (!keeper || group.losers().empty()) return noKeeperAndOthers();
  if (group.isMixed() && context.objects.size() > 1 && !context.shiftedKinds.empty()) {
    return fieldsMayBeShifted(context.shiftedKinds);
  }
  using Kind = ResolutionAction::Kind;
  if (action.kind == Kind::merge) {
    if (group.isMixed()) return mixedMerge();
    const std::string object = objectOf(*keeper, context);
    if (MergeRunner::mergeableObjects().count(object) == 0) {
      return notMergeable(labelOf(object, context));
    }
  }
  if (action.kind == Kind::fillGaps) {
    if (!context.writableFields) return fieldDetailsMissing();
  }
  if (action.kind == Kind::tagLosers) {
    for (const SnapshotRecord* loser : group.losers()) {
      const std::string object = objectOf(*loser, context);
      const WritableField* field = writable(object, action.fieldName, context);
      if (!field || !field->isText) {
        return noTaggableField(labelOf(object, context), action.fieldName);
      }
    }
  }
  return std::nullopt;
}

}  // namespace

Context contextFor(RecordStore& store) {
  Context context;
  SnapshotInfo info = store.info();
  context.objectName = info.objectName;
  context.objectLabel = info.objectLabel;
  context.matchFields = store.matchFields();
  context.extraFields = store.extraFields();
  context.objects = store.objects();
  if (store.isMultiObject() && !store.slotsAligned()) context.shiftedKinds = store.shiftedKinds();
  return context;
}

std::vector<ResolvedGroup> resolve(RecordStore& store, const std::vector<DuplicateGroup>& groups,
                                   KeeperRule rule) {
  std::vector<Rid> all;
  for (const DuplicateGroup& group : groups) {
    all.insert(all.end(), group.members.begin(), group.members.end());
  }
  std::map<Rid, SnapshotRecord> byRid;
  for (SnapshotRecord& record : store.records(all)) byRid.emplace(record.rid, std::move(record));

  std::vector<ResolvedGroup> out;
  out.reserve(groups.size());
  for (const DuplicateGroup& group : groups) {
    ResolvedGroup resolved;
    resolved.group = group;
    for (Rid rid : group.members) {
      auto found = byRid.find(rid);
      if (found != byRid.end()) resolved.records.push_back(found->second);
    }
    if (const SnapshotRecord* keeper = KeeperRules::keeper(resolved.records, rule)) {
      resolved.keeperRid = keeper->rid;
    }
    out.push_back(std::move(resolved));
  }
  return out;
}

std::string keeperGoneWithChosenValues() {
  return "The record you chose to keep is no longer available, and this group has chosen values. "
         "Review it again.";
}

std::string noKeeperAndOthers() { return "This group no longer has a keeper and other records."; }

std::string mixedMerge() {
  return "This group holds more than one kind of record, and Salesforce can only merge records "
         "of the same kind.";
}

std::string notMergeable(std::string_view objectLabel) {
  return "Corvane merges only Accounts, Contacts and " + std::string("Leads, so these ") +
         std::string(objectLabel) + " records cannot be merged.";
}

std::string fieldDetailsMissing() {
  return "Field details have not loaded from Salesforce yet, so nothing was filled.";
}

std::string nothingToFill() { return "The kept record already has every fillable field filled in."; }

std::string noTaggableField(std::string_view objectLabel, std::string_view field) {
  return std::string(objectLabel) + " records have no text field named \"" + std::string(field) +
         "\" that can be written, so nothing in this group was tagged.";
}

std::string fieldsMayBeShifted(const std::set<MatchKind>& kinds) {
  std::string words;
  std::size_t i = 0;
  for (MatchKind kind : kinds) {
    if (i > 0) words += i + 1 == kinds.size() ? " and " : ", ";
    words += kindWords(kind);
    ++i;
  }
  if (!words.empty()) words[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(words[0])));
  return words + " values in it may sit " +
         "under the wrong field, so this group may not be real. Nothing was changed. "
         "Download these objects into separate snapshots to compare them.";
}

ResolutionPlan plan(const std::vector<ResolvedGroup>& groups, const ResolutionAction& action,
                    const Context& context) {
  using Kind = ResolutionAction::Kind;
  ResolutionPlan out;
  out.action = action;
  out.heldBackIncluded = context.includeHeldBack;
  for (const ResolvedGroup& group : groups) {
    const std::int64_t id = group.group.id;
    if (auto reason = skipReason(group, action, context)) {
      out.skipped.emplace_back(id, *reason);
      continue;
    }
    const SnapshotRecord& keeper = *group.keeper();
    KeeperValues values;
    if (action.kind == Kind::fillGaps || action.kind == Kind::merge) {
      values = valuesForKeeper(group, keeper, context, action.kind == Kind::merge);
      if (action.kind == Kind::fillGaps && values.values.empty()) {
        out.skipped.emplace_back(id, nothingToFill());
        continue;
      }
    }
    if (action.kind != Kind::exportOnly && group.group.distinctCount >= heldBackDistinctCount) {
      out.heldBack.emplace_back(id, group.group.distinctCount);
      if (!context.includeHeldBack) continue;
    }
    ++out.groupCount;
    switch (action.kind) {
      case Kind::merge: {
        bool first = true;
        for (const SnapshotRecord* loser : group.losers()) {
          PlannedMerge merge;
          merge.primary = keeper.sfid;
          merge.primaryModified = keeper.modified;
          merge.loser = loser->sfid;
          merge.loserModified = loser->modified;
          merge.groupId = id;
          if (first) {
            merge.fieldValues = values.values;
            merge.fieldSources = values.sources;
          }
          merge.object = objectOf(keeper, context);
          out.merges.push_back(std::move(merge));
          first = false;
        }
        break;
      }
      case Kind::deleteLosers:
        for (const SnapshotRecord* loser : group.losers()) {
          out.deletes.push_back(changeFor(*loser, id, context));
        }
        break;
      case Kind::fillGaps: {
        PlannedChange change = changeFor(keeper, id, context);
        change.fields = std::move(values.values);
        out.updates.push_back(std::move(change));
        break;
      }
      case Kind::tagLosers:
        for (const SnapshotRecord* loser : group.losers()) {
          PlannedChange change = changeFor(*loser, id, context);
          const WritableField* field =
              writable(objectOf(*loser, context), action.fieldName, context);
          change.fields[field->name] = keeper.sfid;
          out.updates.push_back(std::move(change));
        }
        break;
      case Kind::exportOnly: break;
    }
  }
  return out;
}

std::optional<std::string> planAlready(ResolutionPlan& plan, const SnapshotRecord& record,
                                       const std::string& otherId, const Context& context) {
  PlannedChange change = changeFor(record, 0, context);
  if (plan.action.kind == ResolutionAction::Kind::tagLosers) {
    const std::string object = objectOf(record, context);
    const WritableField* field = writable(object, plan.action.fieldName, context);
    if (!field || !field->isText)
      return noTaggableField(labelOf(object, context), plan.action.fieldName);
    change.fields[field->name] = otherId;
  }
  plan.already.push_back(std::move(change));
  return std::nullopt;
}

}  // namespace ResolutionPlanner
}  // namespace corvane
