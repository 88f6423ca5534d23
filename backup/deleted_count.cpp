#include "backup/deleted_count.hpp"

namespace corvane {

void to_json(nlohmann::json& json, const DeletedCount& count) {
  json = nlohmann::json{{"object", count.object},
                        {"deleted", count.deleted},
                        {"missing", count.missing},
                        {"heldBefore", count.heldBefore}};
}

void from_json(const nlohmann::json& json, DeletedCount& count) {
  json.at("object").get_to(count.object);
  json.at("deleted").get_to(count.deleted);
  json.at("missing").get_to(count.missing);
  json.at("heldBefore").get_to(count.heldBefore);
}

}  // namespace corvane
