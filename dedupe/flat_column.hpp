// One match field's normalised values for every record, packed into one byte
// buffer so that comparisons touch no per-record strings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct FlatColumn {
  std::string data;
  // One entry per record plus one: value i is data[offsets[i], offsets[i+1]).
  std::vector<std::uint64_t> offsets{0};

  std::size_t size() const { return offsets.size() - 1; }
  std::string_view value(std::size_t index) const {
    return {data.data() + offsets[index], offsets[index + 1] - offsets[index]};
  }
  void append(std::string_view value) {
    data.append(value);
    offsets.push_back(data.size());
  }
};

}  // namespace corvane
