// How the org's metadata reads: the metadata types, the components of one
// type, and a retrieval into a project folder, as tables and as CSV. Shared by
// both faces; the JSON is the CLI's own records.
#pragma once

#include <string>
#include <vector>

#include "health/health_task.hpp"

namespace corvane::MetadataReport {

// The listing's type names, or its components (name, who last modified them
// and when, file), each followed by a count; the same as CSV.
std::string table(const HealthTask::MetadataListing& listing);
std::string csv(const HealthTask::MetadataListing& listing);

// One row per file retrieved (type, name, state, file), the components not
// retrieved and why, and where they went.
std::string table(const HealthTask::Retrieval& retrieval);

}  // namespace corvane::MetadataReport
