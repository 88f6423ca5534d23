// A REST session for one login, as the Salesforce CLI hands it out.
//
// The access token is a live credential. This type deliberately has no
// operator<< and no formatter: nothing may print it, log it or put it into an
// error text. Only the REST client reads accessToken, to build its
// Authorization header.
#pragma once

#include <string>

#include "platform/iso_time.hpp"

namespace corvane::SalesforceAPI {

struct Session {
  std::string accessToken;
  std::string instanceUrl;  // https, or http on a loopback host
  std::string apiVersion = "62.0";
  SystemTime fetchedAt{};  // when the bridge obtained it
};

}  // namespace corvane::SalesforceAPI
