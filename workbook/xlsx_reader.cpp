#include "workbook/xlsx_reader.hpp"

#include <zip.h>

#include <cerrno>

#include <fmt/format.h>

#include "workbook/workbook_error.hpp"
#include "workbook/xlsx_parts.hpp"
#include "platform/file_error.hpp"

namespace corvane {

namespace {

std::string curlyQuoted(std::string_view text) { return fmt::format("\u201c{}\u201d", text); }

// One part of the archive, unpacked as it is read, refused past the limit.
class ZipPartInput : public PartInput {
 public:
  ZipPartInput(zip_t* archive, zip_uint64_t index, std::string name, std::size_t limit)
      : name_(std::move(name)), limit_(limit) {
    file_ = zip_fopen_index(archive, index, 0);
    if (!file_)
      failure_ = fmt::format("its part {} cannot be unpacked ({})", name_, zip_strerror(archive));
  }
  ~ZipPartInput() override {
    if (file_) zip_fclose(file_);
  }
  ZipPartInput(const ZipPartInput&) = delete;
  ZipPartInput& operator=(const ZipPartInput&) = delete;

  int read(char* buffer, int capacity) override {
    if (!file_) return -1;
    zip_int64_t got = zip_fread(file_, buffer, static_cast<zip_uint64_t>(capacity));
    if (got < 0) {
      failure_ = fmt::format("its part {} is damaged ({})", name_, zip_file_strerror(file_));
      return -1;
    }
    total_ += static_cast<std::size_t>(got);
    if (total_ > limit_) {
      failure_ = tooLarge(name_, limit_);
      return -1;
    }
    return static_cast<int>(got);
  }
  std::string failure() const override { return failure_; }
  std::string name() const override { return name_; }

  static std::string tooLarge(const std::string& name, std::size_t limit) {
    return fmt::format(
        "its part {} would unpack to more than {}, more than any sheet needs", name,
        limit >= (1 << 20) ? fmt::format("{} MB", limit >> 20) : fmt::format("{} bytes", limit));
  }

 private:
  std::string name_;
  std::size_t limit_;
  zip_file_t* file_ = nullptr;
  std::size_t total_ = 0;
  std::string failure_;
};

}  // namespace

struct XlsxReader::Impl {
  std::string displayName;
  std::size_t maximumPartSize = XlsxReader::defaultMaximumPartSize;
  std::string bytes;  // the whole file, when opened from memory
  zip_t* archive = nullptr;
  std::string workbookPart = "xl/workbook.xml";
  WorkbookParser::Workbook workbook;
  std::vector<std::string> sheetNames;
  std::vector<RelsParser::Relationship> workbookRelationships;
  std::vector<std::string> sharedStrings;
  StyleInfo styles;

  ~Impl() {
    if (archive) zip_discard(archive);
  }

  [[noreturn]] void fail(const std::string& detail) const {
    throw WorkbookError(fmt::format(
        "{} could not be read as a workbook: {}. Nothing was imported; open it in your "
        "spreadsheet program, save it again as an .xlsx workbook (or as CSV) and try again.",
        displayName, detail));
  }

  std::optional<zip_uint64_t> locate(const std::string& part) const {
    zip_int64_t index = zip_name_locate(archive, part.c_str(), 0);
    if (index < 0) index = zip_name_locate(archive, part.c_str(), ZIP_FL_NOCASE);
    if (index < 0) return std::nullopt;
    return static_cast<zip_uint64_t>(index);
  }

  // Runs parse on a part; nothing when the archive lacks it.
  template <class Parse>
  auto withPart(const std::string& part, Parse parse)
      -> std::optional<decltype(parse(std::declval<PartInput&>()))> {
    auto index = locate(part);
    if (!index) return std::nullopt;
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive, *index, 0, &stat) == 0 && (stat.valid & ZIP_STAT_SIZE) &&
        stat.size > maximumPartSize)
      fail(ZipPartInput::tooLarge(part, maximumPartSize));
    ZipPartInput input(archive, *index, part, maximumPartSize);
    try {
      return parse(input);
    } catch (const WorkbookFormatError& error) {
      fail(error.what());
    }
  }

  void open() {
    std::string rootRels = "_rels/.rels";
    auto root = withPart(rootRels, [](PartInput& in) { return RelsParser::parse(in); });
    if (root) {
      if (const auto* office = RelsParser::findType(*root, "officeDocument"))
        workbookPart = RelsParser::resolve("", office->target);
    }
    auto parsed = withPart(workbookPart, [](PartInput& in) { return WorkbookParser::parse(in); });
    if (!parsed) fail("it holds no workbook part; it may be a different kind of document");
    workbook = std::move(*parsed);
    for (const auto& sheet : workbook.sheets) sheetNames.push_back(sheet.name);
    workbookRelationships = withPart(RelsParser::relsPath(workbookPart), [](PartInput& in) {
                              return RelsParser::parse(in);
                            }).value_or(std::vector<RelsParser::Relationship>{});
    std::string sharedPart = "xl/sharedStrings.xml";
    if (const auto* shared = RelsParser::findType(workbookRelationships, "sharedStrings"))
      sharedPart = RelsParser::resolve(workbookPart, shared->target);
    sharedStrings = withPart(sharedPart, [this](PartInput& in) {
                      return SharedStringsParser::parse(in, maximumPartSize);
                    }).value_or(std::vector<std::string>{});
    std::string stylesPart = "xl/styles.xml";
    if (const auto* found = RelsParser::findType(workbookRelationships, "styles"))
      stylesPart = RelsParser::resolve(workbookPart, found->target);
    styles = withPart(stylesPart, [](PartInput& in) {
               return StylesParser::parse(in);
             }).value_or(StyleInfo{});
  }

  std::optional<ImportGrid> read(std::size_t index) {
    const auto& sheet = workbook.sheets.at(index);
    std::string part;
    for (const auto& relationship : workbookRelationships) {
      if (relationship.id == sheet.relationshipID && !relationship.external)
        part = RelsParser::resolve(workbookPart, relationship.target);
    }
    if (part.empty())
      fail(fmt::format("the sheet {} has no part of its own", curlyQuoted(sheet.name)));
    CellContext context{&sharedStrings, &styles, workbook.date1904};
    auto rows = withPart(part, [&](PartInput& in) {
      try {
        return SheetParser::parse(in, context);
      } catch (const WorkbookFormatError& error) {
        throw WorkbookFormatError(
            fmt::format("in the sheet {}, {}", curlyQuoted(sheet.name), error.what()));
      }
    });
    if (!rows) fail(fmt::format("the part of the sheet {} is missing", curlyQuoted(sheet.name)));
    if (rows->empty()) return std::nullopt;
    ImportGrid grid;
    grid.sheetName = sheet.name;
    for (ImportCell header : rows->front()) grid.headers.push_back(trimmedHeader(header));
    rows->dropFirst();
    grid.rows = std::move(*rows);
    return grid;
  }
};

XlsxReader::XlsxReader(const std::filesystem::path& path, std::size_t maximumPartSize)
    : impl_(std::make_unique<Impl>()) {
  impl_->displayName = path.filename().string();
  impl_->maximumPartSize = maximumPartSize;
  int error = 0;
  impl_->archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
  if (!impl_->archive) {
    if (error == ZIP_ER_NOENT) throw FileError(FileError::Kind::open, path, ENOENT);
    if (error == ZIP_ER_OPEN || error == ZIP_ER_READ)
      throw FileError(error == ZIP_ER_OPEN ? FileError::Kind::open : FileError::Kind::read, path,
                      errno);
    impl_->fail("it is not an .xlsx file (not a ZIP archive)");
  }
  impl_->open();
}

XlsxReader::XlsxReader(std::string bytes, std::string displayName, std::size_t maximumPartSize)
    : impl_(std::make_unique<Impl>()) {
  impl_->displayName = std::move(displayName);
  impl_->maximumPartSize = maximumPartSize;
  impl_->bytes = std::move(bytes);
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source =
      zip_source_buffer_create(impl_->bytes.data(), impl_->bytes.size(), 0, &error);
  if (source) {
    impl_->archive = zip_open_from_source(source, ZIP_RDONLY, &error);
    if (!impl_->archive) zip_source_free(source);
  }
  zip_error_fini(&error);
  if (!impl_->archive) impl_->fail("it is not an .xlsx file (not a ZIP archive)");
  impl_->open();
}

XlsxReader::~XlsxReader() = default;

const std::vector<std::string>& XlsxReader::sheetNames() const { return impl_->sheetNames; }

bool XlsxReader::date1904() const { return impl_->workbook.date1904; }

std::optional<ImportGrid> XlsxReader::readSheet(std::string_view name) {
  const auto& names = impl_->sheetNames;
  for (std::size_t index = 0; index < names.size(); ++index) {
    if (names[index] == name) return impl_->read(index);
  }
  std::string list;
  for (const auto& known : names) list += (list.empty() ? "" : ", ") + curlyQuoted(known);
  throw WorkbookError(
      fmt::format("{} has no sheet named {}. {}", impl_->displayName, curlyQuoted(name),
                  names.empty() ? std::string("It has no sheets at all.")
                                : fmt::format("Its sheets are {}; choose one of them.", list)));
}

std::optional<ImportGrid> XlsxReader::readSheet(std::size_t index) {
  if (index >= impl_->sheetNames.size()) {
    throw WorkbookError(fmt::format("{} has {} sheets; there is no sheet number {}.",
                                           impl_->displayName, impl_->sheetNames.size(),
                                           index + 1));
  }
  return impl_->read(index);
}

}  // namespace corvane
