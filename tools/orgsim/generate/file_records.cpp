// Files: ContentDocument, ContentVersion, ContentDocumentLink, Attachment,
// Document.
//
// A document's versions and links are spread over the documents so that the
// totals are exactly the planned counts: each document gets the average number,
// and a scattered few get one more. Version bodies are made again wherever
// they are needed (the document's size is its latest version's), never kept.
#include <algorithm>
#include <set>

#include "tools/orgsim/generate/file_bodies.hpp"
#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/record_sets.hpp"
#include "tools/orgsim/generate/text_forms.hpp"

namespace corvane::orgsim::RecordSets {

namespace {

using std::chrono::milliseconds;

// The objects files are shared with or attached to.
constexpr std::string_view kParents[] = {"Account",     "Contact", "Lead",
                                         "Opportunity", "Case",    "Invoice__c"};

class DocumentLayout {
 public:
  explicit DocumentLayout(const OrgPlan& plan)
      : plan_(plan),
        documents_(static_cast<std::uint64_t>(plan.count("ContentDocument"))),
        versions_(static_cast<std::uint64_t>(plan.count("ContentVersion"))),
        links_(static_cast<std::uint64_t>(plan.count("ContentDocumentLink"))),
        versionSpread_(plan.seed() ^ streamTag("version spread"), documents_),
        linkSpread_(plan.seed() ^ streamTag("link spread"), documents_) {}

  std::uint64_t documents() const { return documents_; }

  int versions(std::uint64_t document) const {
    return static_cast<int>(versions_ / documents_ +
                            (versionSpread_(document - 1) < versions_ % documents_ ? 1 : 0));
  }

  int links(std::uint64_t document) const {
    return static_cast<int>(links_ / documents_ +
                            (linkSpread_(document - 1) < links_ % documents_ ? 1 : 0));
  }

  const FileKind& kind(std::uint64_t document) const {
    auto r = plan_.random("document kind", document);
    return FileBodies::pick(r);
  }

  std::string title(std::uint64_t document) const {
    auto r = plan_.random("document title", document);
    return FileBodies::title(r);
  }

  std::uint64_t owner(std::uint64_t document) const {
    auto r = plan_.random("document owner", document);
    return plan_.pickUser(r);
  }

  // When version `index` (from 0) of `count` was uploaded: in order, the first
  // when the document was created.
  Clock::time_point versionTime(std::uint64_t document, int index, int count) const {
    auto created = plan_.createdAt("ContentDocument", document);
    if (index == 0) return created;
    auto span =
        std::chrono::duration_cast<milliseconds>(plan_.now() - std::chrono::minutes(1) - created);
    auto r =
        RandomSource::forRecord(plan_.seed(), streamTag("version time") ^ mix64(index), document);
    double at = (index + 0.9 * r.unit()) / count;
    return std::chrono::time_point_cast<milliseconds>(
        created + milliseconds(static_cast<std::int64_t>(static_cast<double>(span.count()) * at)));
  }

  std::string body(std::uint64_t document, int index) const {
    auto r =
        RandomSource::forRecord(plan_.seed(), streamTag("version body") ^ mix64(index), document);
    return FileBodies::make(kind(document), r);
  }

  // The record link `index` points at (without any records: a user); `attempt`
  // draws another one.
  std::string linkTarget(std::uint64_t document, int index, int attempt = 0) const {
    auto r = RandomSource::forRecord(
        plan_.seed(), streamTag("document link") ^ mix64(index) ^ mix64(mix64(attempt)), document);
    if (auto parent = pickParent(plan_, r)) return *parent;
    return userId(plan_.pickUser(r));
  }

  static std::optional<std::string> pickParent(const OrgPlan& plan, RandomSource& random) {
    std::string_view available[std::size(kParents)];
    std::size_t n = 0;
    for (auto object : kParents) {
      if (plan.count(object) > 0) available[n++] = object;
    }
    if (n == 0) return std::nullopt;
    std::string_view object = available[random.below(n)];
    return plan.id(object, plan.pickLive(object, random));
  }

 private:
  const OrgPlan& plan_;
  std::uint64_t documents_, versions_, links_;
  IndexPermutation versionSpread_, linkSpread_;
};

std::string fileName(std::string_view title, const FileKind& kind) {
  return std::string(title) + "." + std::string(kind.extension);
}

}  // namespace

void contentDocuments(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  DocumentLayout layout(plan);
  RowSink row(context.store, "ContentDocument", static_cast<std::int64_t>(layout.documents()),
              context.progress, context.shouldStop);
  std::uint64_t firstVersion = 1;
  for (std::uint64_t d = 1; d <= layout.documents(); ++d) {
    int versions = layout.versions(d);
    const FileKind& kind = layout.kind(d);
    auto owner = layout.owner(d);
    auto r = plan.random("content document", d);
    Stamps stamps;
    stamps.created = WireTime::dateTime(layout.versionTime(d, 0, versions));
    stamps.modified = WireTime::dateTime(layout.versionTime(d, versions - 1, versions));
    stamps.modstamp = stamps.modified;
    row.put("Id", plan.id("ContentDocument", d));
    row.put("Title", layout.title(d));
    row.put("IsArchived", false);
    row.putNull("ArchivedDate");
    row.put("PublishStatus", "P");
    row.put("LatestPublishedVersionId",
            plan.id("ContentVersion", firstVersion + static_cast<std::uint64_t>(versions) - 1));
    row.put("Description", r.chance(0.3) ? FreeText::sentence(r) : std::string());
    row.put("ContentSize", static_cast<std::int64_t>(layout.body(d, versions - 1).size()));
    row.put("FileType", kind.fileType);
    row.put("FileExtension", kind.extension);
    row.put("OwnerId", userId(owner));
    putSystemFields(row, stamps, owner, owner, false);
    row.end();
    firstVersion += static_cast<std::uint64_t>(versions);
  }
  row.finish();
}

void contentVersions(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  DocumentLayout layout(plan);
  RowSink row(context.store, "ContentVersion", plan.count("ContentVersion"), context.progress,
              context.shouldStop);
  static constexpr std::string_view kReasons[] = {"Updated figures", "Typo fixed", "Signed copy",
                                                  "Neue Preise, gültig ab Mai",
                                                  "Final \"final\" version"};
  std::uint64_t serial = 1;
  for (std::uint64_t d = 1; d <= layout.documents(); ++d) {
    int versions = layout.versions(d);
    const FileKind& kind = layout.kind(d);
    std::string title = layout.title(d);
    auto owner = layout.owner(d);
    std::string firstPlace = layout.linkTarget(d, 0);
    for (int i = 0; i < versions; ++i, ++serial) {
      auto r = plan.random("content version", serial);
      std::string uploaded = WireTime::dateTime(layout.versionTime(d, i, versions));
      Stamps stamps{{}, uploaded, uploaded, uploaded};
      row.put("Id", plan.id("ContentVersion", serial));
      row.put("ContentDocumentId", plan.id("ContentDocument", d));
      row.put("IsLatest", i == versions - 1);
      row.put("VersionNumber", std::to_string(i + 1));
      row.put("Title", title);
      row.put("Description", r.chance(0.2) ? FreeText::sentence(r) : std::string());
      row.put("ReasonForChange", i > 0 && r.chance(0.6)
                                     ? std::string(kReasons[r.below(std::size(kReasons))])
                                     : std::string());
      row.put("PathOnClient", fileName(title, kind));
      row.put("FileType", kind.fileType);
      row.put("FileExtension", kind.extension);
      row.put("VersionData", layout.body(d, i));
      row.put("ContentModifiedDate", std::string_view(uploaded));
      row.put("FirstPublishLocationId", std::string_view(firstPlace));
      row.put("PublishStatus", "P");
      row.put("ContentLocation", "S");
      row.put("Origin", "C");
      row.put("OwnerId", userId(owner));
      putSystemFields(row, stamps, owner, owner, false);
      row.end();
    }
  }
  row.finish();
}

void contentDocumentLinks(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  DocumentLayout layout(plan);
  RowSink row(context.store, "ContentDocumentLink", plan.count("ContentDocumentLink"),
              context.progress, context.shouldStop);
  std::uint64_t serial = 1;
  for (std::uint64_t d = 1; d <= layout.documents(); ++d) {
    int links = layout.links(d);
    auto owner = layout.owner(d);
    std::string stamp = WireTime::dateTime(layout.versionTime(d, 0, 1));
    // A document is linked to a record at most once (as far as is cheap to check).
    std::set<std::string> linked;
    for (int j = 0; j < links; ++j, ++serial) {
      // The place it was first shared, its owner (who always sees it), then others.
      bool ownerLink = j == 1;
      auto r = plan.random("content document link", serial);
      std::string target = ownerLink ? userId(owner) : layout.linkTarget(d, j);
      for (int attempt = 1; attempt < 8 && linked.contains(target); ++attempt) {
        target = layout.linkTarget(d, j, attempt);
      }
      if (linked.size() < 64) linked.insert(target);
      row.put("Id", plan.id("ContentDocumentLink", serial));
      row.put("LinkedEntityId", target);
      row.put("ContentDocumentId", plan.id("ContentDocument", d));
      row.put("ShareType", ownerLink ? "I" : r.chance(0.8) ? "V" : "C");
      row.put("Visibility", r.chance(0.9) ? "AllUsers" : "InternalUsers");
      row.put("IsDeleted", false);
      row.put("SystemModstamp", std::string_view(stamp));
      row.end();
    }
  }
  row.finish();
}

void attachments(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Attachment");
  RowSink row(context.store, "Attachment", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("attachment", k);
    auto parent = DocumentLayout::pickParent(plan, r);
    const FileKind& kind = FileBodies::pick(r);
    Stamps stamps = plan.stamps("Attachment", k);
    row.put("Id", plan.id("Attachment", k));
    row.put("ParentId", parent.value_or(""));
    row.put("Name", fileName(FileBodies::title(r), kind));
    row.put("IsPrivate", r.chance(0.1));
    row.put("ContentType", kind.contentType);
    row.put("Body", FileBodies::make(kind, r));
    row.put("Description", r.chance(0.2) ? FreeText::sentence(r) : std::string());
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r),
                    plan.isDeleted("Attachment", k));
    row.end();
  }
  row.finish();
}

void documents(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Document");
  RowSink row(context.store, "Document", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("document", k);
    const FileKind& kind = FileBodies::pick(r);
    std::string title = FileBodies::title(r);
    auto author = plan.pickUser(r);
    std::string developerName = "Doc_" + std::to_string(k);
    std::string slug = TextForms::slug(title);
    if (!slug.empty()) developerName.append("_").append(slug.substr(0, 60));
    row.put("Id", plan.id("Document", k));
    row.put("FolderId", userId(author));  // the author's personal folder
    row.put("Name", fileName(title, kind));
    row.put("DeveloperName", developerName);
    row.put("ContentType", kind.contentType);
    row.put("Type", kind.extension);
    row.put("IsPublic", r.chance(0.3));
    row.put("Body", FileBodies::make(kind, r));
    row.putNull("Url");
    row.put("Description", r.chance(0.3) ? FreeText::sentence(r) : std::string());
    row.put("Keywords", r.chance(0.3) ? "logo, letterhead, 2024" : "");
    row.put("IsInternalUseOnly", r.chance(0.2));
    row.put("AuthorId", userId(author));
    putSystemFields(row, plan.stamps("Document", k), author, author, false, false);
    row.end();
  }
  row.finish();
}

}  // namespace corvane::orgsim::RecordSets
