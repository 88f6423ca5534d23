#include "health/email_domains.hpp"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "health/text_table.hpp"

namespace corvane::EmailDomains {

namespace {

using Verdict = DomainCheck::Verdict;

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string word; in >> word;) out.push_back(word);
  return out;
}

// An SPF record begins with the version "v=spf1", alone or followed by a blank.
bool isSPF(const std::string& text) {
  std::string head = lower(text.substr(0, 7));
  return head == "v=spf1" || head == "v=spf1 ";
}

// A mechanism "include:_spf.salesforce.com", with the pass qualifier or none.
bool includesSalesforce(const std::string& record) {
  const std::string wanted = std::string("include:") + kSalesforceSPF;
  for (std::string word : words(lower(record))) {
    if (!word.empty() && word[0] == '+') word.erase(0, 1);
    if (word == wanted) return true;
  }
  return false;
}

std::string unknownAdvice(const std::string& name, const TXTAnswer& answer) {
  return "The DNS server gave no usable answer for " + name + " (" + answer.reason +
         "). Nothing can be said about this record; try again, or ask another DNS server.";
}

// A DKIM key record holds tags "k=...; p=KEY"; an empty p= means the key was revoked.
std::optional<std::string> dkimKey(const std::string& record) {
  std::string text;
  for (char c : record) {
    if (!std::isspace(static_cast<unsigned char>(c))) text += c;
  }
  std::size_t at = 0;
  bool found = false;
  std::string key;
  while (at <= text.size()) {
    std::size_t end = text.find(';', at);
    if (end == std::string::npos) end = text.size();
    std::string tag = text.substr(at, end - at);
    if (tag.rfind("p=", 0) == 0) {
      found = true;
      key = tag.substr(2);
    }
    at = end + 1;
  }
  if (!found) return std::nullopt;
  return key;
}

}  // namespace

std::string verdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::pass:
      return "pass";
    case Verdict::missing:
      return "missing";
    case Verdict::invalid:
      return "invalid";
    case Verdict::incomplete:
      return "incomplete";
    case Verdict::unknown:
      return "unknown";
  }
  return "unknown";
}

DomainCheck spf(const std::string& domain, const TXTAnswer& answer) {
  DomainCheck check{domain, "SPF", domain, Verdict::unknown, {}, {}};
  const std::string example = std::string("\"v=spf1 include:") + kSalesforceSPF + " ~all\"";
  if (answer.status == TXTAnswer::Status::failed) {
    check.advice = unknownAdvice(domain, answer);
    return check;
  }
  for (const auto& text : answer.texts) {
    if (isSPF(text)) check.records.push_back(text);
  }
  if (check.records.empty()) {
    check.verdict = Verdict::missing;
    check.advice = domain + " publishes no SPF record. Publish one TXT record at " + domain +
                   " such as " + example + ", with your other mail senders added.";
  } else if (check.records.size() > 1) {
    check.verdict = Verdict::invalid;
    check.advice = domain + " publishes " + std::to_string(check.records.size()) +
                   " SPF records, and receivers reject all of them when there is more than one. "
                   "Merge them into one TXT record that includes include:" +
                   kSalesforceSPF + ".";
  } else if (!includesSalesforce(check.records.front())) {
    check.verdict = Verdict::incomplete;
    check.advice = "The SPF record of " + domain +
                   " does not include Salesforce. Add include:" + kSalesforceSPF +
                   " to it, before its \"all\" term.";
  } else {
    check.verdict = Verdict::pass;
    check.advice = "The SPF record of " + domain + " includes Salesforce; nothing to do.";
  }
  return check;
}

DomainCheck dkim(const std::string& domain, const std::string& selector, const TXTAnswer& answer) {
  const std::string name = selector + "._domainkey." + domain;
  DomainCheck check{domain, "DKIM", name, Verdict::unknown, {}, {}};
  const std::string publish = "Publish the key that Salesforce shows for the selector \"" +
                              selector + "\" (Setup, DKIM Keys) as a TXT or CNAME record at " +
                              name + ".";
  if (answer.status == TXTAnswer::Status::failed) {
    check.advice = unknownAdvice(name, answer);
    return check;
  }
  check.records = answer.texts;
  if (answer.texts.empty()) {
    check.verdict = Verdict::missing;
    check.advice = "No DKIM key is published at " + name + ". " + publish;
    return check;
  }
  std::vector<std::string> keys;
  for (const auto& text : answer.texts) {
    if (auto key = dkimKey(text)) keys.push_back(*key);
  }
  if (keys.size() == 1 && !keys.front().empty() && answer.texts.size() == 1) {
    check.verdict = Verdict::pass;
    check.advice = "A DKIM key is published at " + name + "; nothing to do.";
  } else if (keys.empty()) {
    check.verdict = Verdict::invalid;
    check.advice = "The TXT record at " + name + " holds no key (no \"p=\" tag). " + publish;
  } else if (keys.size() == 1 && keys.front().empty()) {
    check.verdict = Verdict::invalid;
    check.advice = "The DKIM key at " + name + " is revoked (its \"p=\" tag is empty). " + publish;
  } else {
    check.verdict = Verdict::invalid;
    check.advice = name + " holds " + std::to_string(answer.texts.size()) +
                   " TXT records; a DKIM selector must hold exactly one key. Keep only the one "
                   "Salesforce shows for this selector.";
  }
  return check;
}

std::vector<DomainCheck> check(const TXTResolver& resolver, const std::vector<std::string>& domains,
                               const std::vector<std::string>& selectors) {
  std::vector<DomainCheck> checks;
  for (const auto& domain : domains) checks.push_back(spf(domain, resolver.lookup(domain)));
  for (const auto& domain : domains) {
    for (const auto& selector : selectors) {
      checks.push_back(dkim(domain, selector, resolver.lookup(selector + "._domainkey." + domain)));
    }
  }
  return checks;
}

std::string table(const std::vector<DomainCheck>& checks) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& c : checks) rows.push_back({c.kind, c.name, verdictName(c.verdict)});
  std::string out = TextTable::render({"Check", "Name", "Verdict"}, rows);
  for (const auto& c : checks) {
    if (c.verdict != Verdict::pass) out += "\n" + c.kind + " " + c.name + ": " + c.advice + "\n";
  }
  return out;
}

nlohmann::json toJSON(const std::vector<DomainCheck>& checks) {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& c : checks) {
    list.push_back({{"domain", c.domain},
                    {"kind", c.kind},
                    {"name", c.name},
                    {"verdict", verdictName(c.verdict)},
                    {"records", c.records},
                    {"advice", c.advice}});
  }
  return list;
}

}  // namespace corvane::EmailDomains
