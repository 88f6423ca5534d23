#include "tools/orgsim/generate/row_sink.hpp"

#include <cstring>
#include <stdexcept>

#include "tools/orgsim/generate/generator.hpp"

namespace corvane::orgsim {

namespace {

constexpr std::int64_t kReportEvery = 5000;

}  // namespace

RowSink::RowSink(OrgStore& store, std::string_view object, std::int64_t total,
                 const ProgressFunction& progress, const std::function<bool()>& shouldStop)
    : store_(store), object_(object), total_(total), progress_(progress), shouldStop_(shouldStop) {}

RowSink::~RowSink() = default;

void RowSink::field(const char* name) {
  if (!fieldsFixed_) {
    fields_.push_back(name);
    values_.emplace_back();
    null_.push_back(true);
  } else if (next_ >= fields_.size() ||
             (fields_[next_] != name && std::strcmp(fields_[next_], name) != 0)) {
    throw std::logic_error("generator row for " + object_ + " names field " + name +
                           " out of order");
  }
}

void RowSink::put(const char* name, std::string value) {
  field(name);
  values_[next_] = std::move(value);
  null_[next_] = values_[next_].empty();
  ++next_;
}

void RowSink::put(const char* name, std::string_view value) {
  field(name);
  values_[next_].assign(value);
  null_[next_] = value.empty();
  ++next_;
}

void RowSink::putNull(const char* name) {
  field(name);
  values_[next_].clear();
  null_[next_] = true;
  ++next_;
}

void RowSink::end() {
  if (next_ != fields_.size()) {
    throw std::logic_error("generator row for " + object_ + " is missing fields");
  }
  if (!writer_) {
    fieldsFixed_ = true;
    writer_ = std::make_unique<RecordWriter>(
        store_.writer(object_, std::vector<std::string>(fields_.begin(), fields_.end())));
    views_.resize(fields_.size());
  }
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    views_[i] = null_[i] ? FieldValue() : FieldValue(values_[i]);
  }
  writer_->insert(std::span<const FieldValue>(views_));
  next_ = 0;
  ++rows_;
  if (rows_ % kReportEvery == 0) {
    if (shouldStop_ && shouldStop_()) throw GenerateError(GenerateError::Kind::Stopped, "");
    report();
  }
}

void RowSink::report() {
  if (progress_ && rows_ != reported_) progress_(object_, rows_, total_);
  reported_ = rows_;
}

void RowSink::finish() {
  if (writer_) writer_->commit();
  report();
}

}  // namespace corvane::orgsim
