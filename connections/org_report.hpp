// How the logins of the Salesforce CLI read: a table of them, one login in
// full, and the same as the JSON a script reads. Shared by both faces.
#pragma once

#include <string>
#include <vector>

#include "connections/org.hpp"

namespace corvane::OrgReport {

// One row per login (username, alias, kind, connection, instance) under a
// heading, the columns lined up by characters.
std::string table(const std::vector<Org>& orgs);

// Every fact of one login, one "Name: value" line each.
std::string details(const Org& org, SystemTime now);

// {"logins": [...]} with what the table shows, pretty-printed with a line
// feed; absent facts are null, so the keys never vary.
std::string json(const std::vector<Org>& orgs, SystemTime now);

// One login as one JSON object with every fact, pretty-printed with a line feed.
std::string json(const Org& org, SystemTime now);

}  // namespace corvane::OrgReport
