#include "connections/production_write.hpp"

#include "connections/ascii.hpp"

namespace corvane {

ProductionWriteRefused ProductionWriteRefused::noTerminal(const Org& org,
                                                          std::string_view whatItWrites) {
  return {Kind::noTerminal,
          "Nothing was written: " + org.displayName() + " is a production org, and this would " +
              std::string(whatItWrites) +
              ". Corvane asks before it writes to production, but standard input is not a "
              "terminal. Run the command in a terminal to confirm, or add --yes to go ahead "
              "without being asked."};
}

ProductionWriteRefused ProductionWriteRefused::nameDidNotMatch(const Org& org) {
  return {Kind::nameDidNotMatch, "Nothing was written: what was typed is not \"" +
                                     ProductionWrite::nameToType(org) +
                                     "\". Run the command again and type the org's name exactly "
                                     "to go ahead."};
}

namespace ProductionWrite {

std::string nameToType(const Org& org) {
  if (org.name && !Ascii::trimmed(*org.name).empty()) return std::string(Ascii::trimmed(*org.name));
  return org.displayName();
}

bool confirms(const Org& org, std::string_view typed) {
  return Ascii::trimmed(typed) == nameToType(org);
}

}  // namespace ProductionWrite

}  // namespace corvane
