#include "dedupe/cross_matcher.hpp"

#include <algorithm>
#include <cctype>

#include "dedupe/email_tag.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/phonetic.hpp"

namespace corvane::CrossMatcher {

std::string_view label(Role role) {
  switch (role) {
    case Role::email: return "e-mail";
    case Role::name: return "name";
    case Role::company: return "company";
    case Role::phone: return "phone";
  }
  return "";
}

std::string_view key(Role role) {
  switch (role) {
    case Role::email: return "email";
    case Role::name: return "name";
    case Role::company: return "company";
    case Role::phone: return "phone";
  }
  return "";
}

std::optional<Role> roleOf(MatchKind kind) {
  switch (kind) {
    case MatchKind::personName: return Role::name;
    case MatchKind::companyName: return Role::company;
    case MatchKind::email: return Role::email;
    case MatchKind::phone: return Role::phone;
    case MatchKind::text: return std::nullopt;
  }
  return std::nullopt;
}

std::size_t Side::size() const {
  if (hasName) return name.size();
  if (hasCompany) return company.size();
  if (!emails.empty()) return emails.front().size();
  if (!phones.empty()) return phones.front().size();
  return 0;
}

bool Side::has(Role role) const {
  switch (role) {
    case Role::email: return !emails.empty();
    case Role::name: return hasName;
    case Role::company: return hasCompany;
    case Role::phone: return !phones.empty();
  }
  return false;
}

namespace {

enum class Verdict { unknown, agree, differ };

struct Judged {
  Verdict verdict = Verdict::unknown;
  double score = 0.0;
};

Judged judge(std::string_view x, std::string_view y, MatchKind kind, bool close,
             Strictness strictness, bool tagged) {
  if (x.empty() || y.empty()) return {};
  if (x == y) return {Verdict::agree, 1.0};
  std::optional<double> score;
  if (close) {
    score = Matcher::uncappedCloseScore(x, y, kind, strictness, tagged);
  } else if (kind == MatchKind::email && tagged && EmailTag::sameInbox(x, y)) {
    score = EmailTag::sameInboxScore;  // a +tag never makes two inboxes
  }
  if (!score) return {Verdict::differ, 0.0};
  return {Verdict::agree, *score};
}

// The best verdict over every filled pair of columns: any agreement agrees.
Judged judgeAny(const std::vector<FlatColumn>& first, std::uint32_t a,
                const std::vector<FlatColumn>& second, std::uint32_t b, MatchKind kind, bool close,
                Strictness strictness, bool tagged) {
  Judged best;
  for (const FlatColumn& x : first) {
    for (const FlatColumn& y : second) {
      const Judged judged = judge(x.value(a), y.value(b), kind, close, strictness, tagged);
      if (judged.verdict == Verdict::agree) {
        if (best.verdict != Verdict::agree || judged.score > best.score) best = judged;
      } else if (judged.verdict == Verdict::differ && best.verdict == Verdict::unknown) {
        best = judged;
      }
    }
  }
  return best;
}

}  // namespace

std::optional<Pair> compare(const Side& first, std::uint32_t a, const Side& second,
                            std::uint32_t b, Strictness strictness) {
  const bool tagged = first.taggedEmail || second.taggedEmail;
  Judged verdicts[4];
  verdicts[static_cast<int>(Role::email)] =
      judgeAny(first.emails, a, second.emails, b, MatchKind::email, first.closeEmail, strictness,
               tagged);
  if (first.hasName && second.hasName) {
    verdicts[static_cast<int>(Role::name)] =
        judge(first.name.value(a), second.name.value(b), MatchKind::personName, first.closeName,
              strictness, false);
  }
  if (first.hasCompany && second.hasCompany) {
    verdicts[static_cast<int>(Role::company)] =
        judge(first.company.value(a), second.company.value(b), MatchKind::companyName,
              first.closeCompany, strictness, false);
  }
  verdicts[static_cast<int>(Role::phone)] = judgeAny(
      first.phones, a, second.phones, b, MatchKind::phone, first.closePhone, strictness, false);

  const auto agrees = [&](Role role) {
    return verdicts[static_cast<int>(role)].verdict == Verdict::agree;
  };
  const auto score = [&](Role role) { return verdicts[static_cast<int>(role)].score; };
  double passed;
  if (agrees(Role::email)) {
    passed = score(Role::email);
  } else if (agrees(Role::name) && (agrees(Role::company) || agrees(Role::phone))) {
    const double second_ = std::max(agrees(Role::company) ? score(Role::company) : 0.0,
                                    agrees(Role::phone) ? score(Role::phone) : 0.0);
    passed = std::min(score(Role::name), second_);
  } else {
    return std::nullopt;
  }

  Pair pair{a, b, passed >= 1.0 ? 1.0 : std::min(passed, Matcher::closeCap), {}, {}};
  for (Role role : {Role::email, Role::name, Role::company, Role::phone}) {
    const Judged& judged = verdicts[static_cast<int>(role)];
    if (judged.verdict == Verdict::agree) pair.agreements.push_back({role, judged.score});
    if (judged.verdict == Verdict::differ) pair.differences.push_back(role);
  }
  return pair;
}

std::string why(const Pair& pair) {
  std::vector<std::pair<Role, std::string>> pieces;
  for (const Agreement& agreement : pair.agreements) {
    pieces.emplace_back(agreement.role, agreement.score >= 1.0 ? "the same" : "very close");
  }
  for (Role role : pair.differences) pieces.emplace_back(role, "different");
  std::stable_sort(pieces.begin(), pieces.end(),
                   [](const auto& x, const auto& y) { return x.first < y.first; });
  std::string text;
  for (const auto& [role, verdict] : pieces) {
    text += (text.empty() ? "" : ", ") + std::string(label(role)) + " " + verdict;
  }
  if (!text.empty()) text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text + ".";
}

namespace {

// A blocking key per record of one column, kept as bytes.
using Derive = std::function<std::string(std::string_view)>;

std::string reversed(std::string_view value) { return std::string(value.rbegin(), value.rend()); }

struct SortedKeys {
  FlatColumn keys;                  // one per entry
  std::vector<std::uint32_t> rows;  // the record of each entry
  std::vector<std::uint32_t> order; // entries sorted by key

  std::string_view keyAt(std::size_t position) const { return keys.value(order[position]); }
};

SortedKeys sortedKeys(const std::vector<const FlatColumn*>& columns, const Derive& derive) {
  SortedKeys sorted;
  for (const FlatColumn* column : columns) {
    for (std::uint32_t row = 0; row < column->size(); ++row) {
      const std::string_view value = column->value(row);
      if (value.empty()) continue;
      if (derive) {
        const std::string key = derive(value);
        if (key.empty()) continue;
        sorted.keys.append(key);
      } else {
        sorted.keys.append(value);
      }
      sorted.rows.push_back(row);
    }
  }
  sorted.order.resize(sorted.rows.size());
  for (std::uint32_t i = 0; i < sorted.order.size(); ++i) sorted.order[i] = i;
  std::stable_sort(sorted.order.begin(), sorted.order.end(), [&](std::uint32_t x, std::uint32_t y) {
    return sorted.keys.value(x) < sorted.keys.value(y);
  });
  return sorted;
}

// Equal keys past this many are not all compared: a value that thousands of
// records share (a switchboard number) tells little about who is who.
constexpr std::size_t mostEqualKeys = 1000;

struct Pass {
  std::string title;
  std::vector<const FlatColumn*> first;
  std::vector<const FlatColumn*> second;
  Derive derive;
};

}  // namespace

Outcome find(const Side& first, const Side& second, const MatchSettings& settings,
             const std::string& otherLabel, const Progress& progress,
             const ShouldCancel& shouldCancel) {
  std::vector<Pass> passes;
  const auto columnsOf = [](const std::vector<FlatColumn>& columns) {
    std::vector<const FlatColumn*> out;
    for (const FlatColumn& column : columns) out.push_back(&column);
    return out;
  };
  const auto sound = [](std::string_view value) { return Phonetic::key(value); };
  if (!first.emails.empty() && !second.emails.empty()) {
    const auto emails = [&](const std::string& how, Derive derive) {
      passes.push_back({"Sorting " + otherLabel + " " + how,
                        columnsOf(first.emails), columnsOf(second.emails), std::move(derive)});
    };
    emails("by e-mail", {});
    if (first.closeEmail) emails("by e-mail read backwards", reversed);
    if (first.taggedEmail || second.taggedEmail) {
      emails("by e-mail without +tags", [](std::string_view value) { return EmailTag::canonical(value); });
    }
  }
  if (first.hasName && second.hasName) {
    const auto names = [&](const std::string& how, Derive derive) {
      passes.push_back({"Sorting " + otherLabel + " " + how, {&first.name},
                        {&second.name}, std::move(derive)});
    };
    names("by name", {});
    if (first.closeName) {
      names("by name read backwards", reversed);
      names("by the sound of the name", sound);
    }
  }
  if (!first.phones.empty() && !second.phones.empty()) {
    const auto phones = [&](const std::string& how, Derive derive) {
      passes.push_back({"Sorting " + otherLabel + " " + how,
                        columnsOf(first.phones), columnsOf(second.phones), std::move(derive)});
    };
    phones("by phone", {});
    if (first.closePhone) phones("by phone read backwards", reversed);
  }

  Outcome outcome;
  const std::size_t count = first.size();
  const std::size_t window = static_cast<std::size_t>(std::max(settings.window, 1));
  std::vector<SortedKeys> sorted;
  for (const Pass& pass : passes) {
    if (progress) progress(pass.title, 0, static_cast<std::int64_t>(count));
    if (shouldCancel && shouldCancel()) {
      outcome.cancelled = true;
      return outcome;
    }
    sorted.push_back(sortedKeys(pass.second, pass.derive));
  }

  const std::string checking = "Comparing with " + otherLabel;
  std::vector<std::uint32_t> candidates;  // of one record, over every pass
  for (std::uint32_t row = 0; row < count; ++row) {
    if ((row & 0xfff) == 0) {
      if (shouldCancel && shouldCancel()) {
        outcome.cancelled = true;
        return outcome;
      }
      if (progress && row > 0) {
        progress(checking, static_cast<std::int64_t>(row), static_cast<std::int64_t>(count));
      }
    }
    candidates.clear();
    for (std::size_t p = 0; p < passes.size(); ++p) {
      const Pass& pass = passes[p];
      const SortedKeys& keys = sorted[p];
      const std::size_t entries = keys.order.size();
      for (const FlatColumn* column : pass.first) {
        const std::string_view value = column->value(row);
        if (value.empty()) continue;
        const std::string derived = pass.derive ? pass.derive(value) : std::string();
        const std::string_view key = pass.derive ? std::string_view(derived) : value;
        if (key.empty()) continue;
        std::size_t low = 0, high = entries;
        while (low < high) {  // the first entry not below key
          const std::size_t middle = (low + high) / 2;
          if (keys.keyAt(middle) < key) {
            low = middle + 1;
          } else {
            high = middle;
          }
        }
        std::size_t equalEnd = low;
        while (equalEnd < entries && equalEnd - low < mostEqualKeys && keys.keyAt(equalEnd) == key)
          ++equalEnd;
        const std::size_t from = low > window ? low - window : 0;
        const std::size_t to = std::min(entries, equalEnd + window);
        for (std::size_t position = from; position < to; ++position) {
          candidates.push_back(keys.rows[keys.order[position]]);
        }
      }
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    const std::size_t before = outcome.pairs.size();
    for (const std::uint32_t other : candidates) {
      ++outcome.comparisons;
      if (auto pair = compare(first, row, second, other, settings.strictness)) {
        outcome.pairs.push_back(std::move(*pair));
      }
    }
    std::stable_sort(outcome.pairs.begin() + static_cast<std::ptrdiff_t>(before),
                     outcome.pairs.end(),
                     [](const Pair& x, const Pair& y) { return x.score > y.score; });
  }
  if (progress) {
    progress(checking, static_cast<std::int64_t>(count), static_cast<std::int64_t>(count));
  }
  return outcome;
}

}  // namespace corvane::CrossMatcher
