// Writers of each object's records, one function per object.
//
// Each writes its object's planned rows in serial order through a RowSink, and
// the members of duplicate clusters into the ground truth. They depend on one
// another only through the OrgPlan (never on what was written before), so the
// order they run in matters only for the org's auto-numbers.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/orgsim/generate/ground_truth.hpp"
#include "tools/orgsim/generate/org_plan.hpp"
#include "tools/orgsim/generate/row_sink.hpp"
#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

struct GenerationContext {
  OrgStore& store;
  const OrgPlan& plan;
  GroundTruth& truth;
  OrgIdentity identity;
  ProgressFunction progress;
  std::function<bool()> shouldStop;
};

// Who an Opportunity or a Case is about (serials; 0 for none).
struct RecordLinks {
  std::uint64_t contact = 0;
  std::uint64_t account = 0;
};

namespace RecordSets {

void organization(GenerationContext& context);
void users(GenerationContext& context);
void accounts(GenerationContext& context);
void contacts(GenerationContext& context);
void leads(GenerationContext& context);
void opportunities(GenerationContext& context);
void cases(GenerationContext& context);
void invoices(GenerationContext& context);
void tasks(GenerationContext& context);
void events(GenerationContext& context);
void contentDocuments(GenerationContext& context);
void contentVersions(GenerationContext& context);
void contentDocumentLinks(GenerationContext& context);
void attachments(GenerationContext& context);
void documents(GenerationContext& context);
void accountHistory(GenerationContext& context);
void accountFeed(GenerationContext& context);
void setupAuditTrail(GenerationContext& context);
void recentlyViewed(GenerationContext& context);
void campaigns(GenerationContext& context);
void campaignMembers(GenerationContext& context);
void notes(GenerationContext& context);

// Shared by writers that point at Opportunities and Cases.
RecordLinks opportunityLinks(const OrgPlan& plan, std::uint64_t serial);
RecordLinks caseLinks(const OrgPlan& plan, std::uint64_t serial);
std::string opportunityName(const OrgPlan& plan, std::uint64_t serial);

// The system fields most objects end with: IsDeleted (when `withIsDeleted`),
// CreatedDate, CreatedById, LastModifiedDate, LastModifiedById, SystemModstamp.
void putSystemFields(RowSink& row, const Stamps& stamps, std::uint64_t createdBy,
                     std::uint64_t modifiedBy, bool deleted, bool withIsDeleted = true);

std::string userId(std::uint64_t serial);

}  // namespace RecordSets

}  // namespace corvane::orgsim
