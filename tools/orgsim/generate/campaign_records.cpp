// Campaigns with the Contacts and Leads they reached, and Notes on records.
#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/record_sets.hpp"

namespace corvane::orgsim::RecordSets {

void campaigns(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Campaign");
  RowSink row(context.store, "Campaign", total, context.progress, context.shouldStop);
  static constexpr std::string_view kSeasons[] = {"Spring", "Summer", "Autumn", "Winter"};
  static constexpr std::string_view kKinds[] = {"Webinar", "Trade Show", "Newsletter",
                                                "Customer Day"};
  static constexpr std::string_view kStatuses[] = {"Planned", "In Progress", "Completed",
                                                   "Aborted"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("campaign", k);
    Stamps stamps = plan.stamps("Campaign", k);
    row.put("Id", plan.id("Campaign", k));
    row.put("Name", std::string(kSeasons[r.below(std::size(kSeasons))]) + " " +
                        std::string(kKinds[r.below(std::size(kKinds))]) + " " + std::to_string(k));
    std::string_view status = kStatuses[r.below(std::size(kStatuses))];
    row.put("Status", status);
    row.put("IsActive", status == "Planned" || status == "In Progress");
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), false);
    row.end();
  }
  row.finish();
}

void campaignMembers(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("CampaignMember");
  auto campaigns = static_cast<std::uint64_t>(plan.count("Campaign"));
  RowSink row(context.store, "CampaignMember", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("campaign member", k);
    Stamps stamps = plan.stamps("CampaignMember", k);
    row.put("Id", plan.id("CampaignMember", k));
    row.put("CampaignId", plan.id("Campaign", (k - 1) % campaigns + 1));
    std::uint64_t contact = r.chance(0.6) ? plan.pickLive("Contact", r) : 0;
    std::uint64_t lead = contact == 0 ? plan.pickLive("Lead", r) : 0;
    if (contact == 0 && lead == 0) contact = plan.pickLive("Contact", r);
    row.put("ContactId", contact != 0 ? plan.id("Contact", contact) : std::string());
    row.put("LeadId", lead != 0 ? plan.id("Lead", lead) : std::string());
    row.put("Status", r.chance(0.3) ? "Responded" : "Sent");
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), false);
    row.end();
  }
  row.finish();
}

void notes(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Note");
  RowSink row(context.store, "Note", total, context.progress, context.shouldStop);
  static constexpr std::string_view kParents[] = {"Account", "Contact", "Lead", "Opportunity"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("note", k);
    std::string_view parentObject = kParents[r.below(std::size(kParents))];
    std::uint64_t parent = plan.pickLive(parentObject, r);
    if (parent == 0) {
      parentObject = "Account";
      parent = plan.pickLive("Account", r);
    }
    Stamps stamps = plan.stamps("Note", k);
    row.put("Id", plan.id("Note", k));
    row.put("ParentId", parent != 0 ? plan.id(parentObject, parent) : std::string());
    row.put("Title", FreeText::truncated(FreeText::sentence(r), 80));
    row.put("Body", FreeText::note(r));
    row.put("IsPrivate", r.chance(0.1));
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), false);
    row.end();
  }
  row.finish();
}

}  // namespace corvane::orgsim::RecordSets
