// Streams one object's generated rows into the store.
//
// A row is built by naming its fields in order (put, putNull) and closed with
// end(). The first row fixes the field list; every later row must name the same
// fields in the same order, which keeps the code that builds a row the only
// place its columns are listed. Rows go to the store's batched writer, which
// commits them in transactions as they fill; progress is reported every few
// thousand rows and once when the object is done (also when it has no rows),
// and the stop check is asked at the same moments.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim {

using ProgressFunction =
    std::function<void(std::string_view object, std::int64_t done, std::int64_t total)>;

class RowSink {
 public:
  RowSink(OrgStore& store, std::string_view object, std::int64_t total,
          const ProgressFunction& progress, const std::function<bool()>& shouldStop);
  ~RowSink();
  RowSink(const RowSink&) = delete;
  RowSink& operator=(const RowSink&) = delete;

  // The next field of the current row. `field` must be a string literal (its
  // address identifies the field in later rows). Empty text is stored as null.
  void put(const char* field, std::string value);
  void put(const char* field, std::string_view value);
  void put(const char* field, const char* value) { put(field, std::string_view(value)); }
  void put(const char* field, bool value) {
    put(field, std::string_view(value ? "true" : "false"));
  }
  void put(const char* field, std::int64_t value) { put(field, std::to_string(value)); }
  void putNull(const char* field);

  // Closes the row and writes it.
  void end();
  // Commits what is left and reports the object done.
  void finish();

  std::int64_t rows() const { return rows_; }

 private:
  void field(const char* name);
  void report();

  OrgStore& store_;
  std::string object_;
  std::int64_t total_;
  const ProgressFunction& progress_;
  const std::function<bool()>& shouldStop_;
  std::vector<const char*> fields_;
  std::vector<std::string> values_;
  std::vector<bool> null_;
  std::vector<FieldValue> views_;
  std::size_t next_ = 0;
  bool fieldsFixed_ = false;
  std::int64_t rows_ = 0;
  std::int64_t reported_ = -1;
  std::unique_ptr<RecordWriter> writer_;
};

}  // namespace corvane::orgsim
