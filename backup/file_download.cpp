#include "backup/file_download.hpp"

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include <nlohmann/json.hpp>

#include "backup/backup_csv.hpp"
#include "backup/safe_file_name.hpp"
#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"

namespace corvane::FileDownload {

namespace {

// Where each object keeps what a body needs, by column name.
struct Columns {
  std::string_view object;
  std::string_view bodyField;
  std::string_view title;
  std::string_view extension;
  std::string_view size;
  std::string_view checksum;
  std::string_view documentId;
  std::string_view isLatest;
};

constexpr std::array<Columns, 3> kinds{{
    {"ContentVersion", "VersionData", "Title", "FileExtension", "ContentSize", "Checksum",
     "ContentDocumentId", "IsLatest"},
    {"Attachment", "Body", "Name", "", "BodyLength", "", "", ""},
    {"Document", "Body", "Name", "Type", "BodyLength", "", "", ""},
}};

const Columns* columnsOf(std::string_view object) {
  for (const auto& kind : kinds)
    if (kind.object == object) return &kind;
  return nullptr;
}

bool sameNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

int columnOf(const std::vector<std::string>& header, std::string_view name) {
  if (name.empty()) return -1;
  for (std::size_t i = 0; i < header.size(); ++i)
    if (sameNoCase(header[i], name)) return static_cast<int>(i);
  return -1;
}

std::int64_t number(std::string_view text) {
  std::int64_t value = 0;
  if (text.empty()) return -1;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace

bool hasBodies(std::string_view object) { return columnsOf(object) != nullptr; }

std::string bodyPath(std::string_view object, std::string_view id) {
  const auto* columns = columnsOf(object);
  return "/sobjects/" + std::string(object) + "/" + std::string(id) + "/" +
         std::string(columns ? columns->bodyField : "Body");
}

std::vector<Body> bodiesIn(std::string_view object, std::string_view csv) {
  std::vector<Body> bodies;
  const auto* columns = columnsOf(object);
  if (!columns) return bodies;
  int id = -1, title = -1, extension = -1, size = -1, checksum = -1, document = -1, latest = -1,
      stamp = -1;
  BackupCSV::scan(
      csv,
      [&](const BackupCSV::Record& header) {
        id = columnOf(header.fields, "Id");
        title = columnOf(header.fields, columns->title);
        extension = columnOf(header.fields, columns->extension);
        size = columnOf(header.fields, columns->size);
        checksum = columnOf(header.fields, columns->checksum);
        document = columnOf(header.fields, columns->documentId);
        latest = columnOf(header.fields, columns->isLatest);
        stamp = columnOf(header.fields, "SystemModstamp");
        if (stamp < 0) stamp = columnOf(header.fields, "LastModifiedDate");
      },
      [&](const BackupCSV::Record& record) {
        auto field = [&](int at) -> std::string {
          return at >= 0 && static_cast<std::size_t>(at) < record.fields.size() ? record.fields[at]
                                                                                : std::string();
        };
        Body body;
        body.id = field(id);
        if (body.id.empty()) return true;
        body.object = std::string(object);
        body.title = field(title);
        body.extension = field(extension);
        body.size = number(field(size));
        body.checksum = field(checksum);
        body.documentId = field(document);
        body.isLatest = latest < 0 || !sameNoCase(field(latest), "false");
        body.stamp = field(stamp);
        bodies.push_back(std::move(body));
        return true;
      });
  return bodies;
}

void record(SQLiteDB& db, const std::vector<Body>& bodies) {
  auto find = db.prepare(
      "SELECT checksum, size, stamp, downloaded, name_on_disk, earlier_copies FROM file_versions "
      "WHERE id = ?");
  auto insert = db.prepare(
      "INSERT INTO file_versions (id, object, document_id, title, name_on_disk, size, checksum, "
      "is_latest, stamp) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
  auto refresh = db.prepare(
      "UPDATE file_versions SET document_id = ?, title = ?, is_latest = ?, stamp = ?, size = ?, "
      "checksum = ?, deleted = 0 WHERE id = ?");
  auto renew = db.prepare(
      "UPDATE file_versions SET name_on_disk = ?, earlier_copies = ?, downloaded = 0, "
      "attempts = 0, failure = '', skipped = 0 WHERE id = ?");
  for (const auto& body : bodies) {
    const std::int64_t size = std::max<std::int64_t>(body.size, 0);
    find.reset();
    find.bindText(1, body.id);
    if (!find.step()) {
      insert.reset();
      insert.bindText(1, body.id)
          .bindText(2, body.object)
          .bindText(3, body.documentId)
          .bindText(4, body.title)
          .bindText(5, SafeFileName::forBody(body.id, body.title, body.extension))
          .bindInt(6, size)
          .bindText(7, body.checksum)
          .bindInt(8, body.isLatest ? 1 : 0)
          .bindText(9, body.stamp);
      insert.run();
      continue;
    }
    const std::string checksum = find.columnText(0);
    const std::int64_t knownSize = find.columnInt(1);
    const std::string stamp = find.columnText(2);
    const bool downloaded = find.columnInt(3) != 0;
    const std::string nameOnDisk = find.columnText(4);
    auto earlier = nlohmann::json::parse(find.columnView(5), nullptr, false);
    find.reset();
    const bool changed = !body.checksum.empty() || !checksum.empty()
                             ? !sameNoCase(body.checksum, checksum)
                             : knownSize != size || (!body.stamp.empty() && body.stamp != stamp);
    refresh.reset();
    refresh.bindText(1, body.documentId)
        .bindText(2, body.title)
        .bindInt(3, body.isLatest ? 1 : 0)
        .bindText(4, body.stamp)
        .bindInt(5, size)
        .bindText(6, body.checksum)
        .bindText(7, body.id);
    refresh.run();
    if (!changed) continue;
    // Older backups still list the earlier body under its own name: keep it.
    if (!earlier.is_array()) earlier = nlohmann::json::array();
    if (downloaded) earlier.push_back(nameOnDisk);
    const std::string again = body.id + "~" + std::to_string(earlier.size() + 1);
    renew.reset();
    renew
        .bindText(
            1, downloaded ? SafeFileName::forBody(again, body.title, body.extension) : nameOnDisk)
        .bindText(2, earlier.empty() ? std::string() : earlier.dump())
        .bindText(3, body.id);
    renew.run();
  }
}

std::vector<Pending> pending(SQLiteDB& db, bool latestOnly) {
  auto statement = db.prepare(
      "SELECT id, object, name_on_disk, checksum, size, attempts FROM file_versions WHERE "
      "downloaded = 0 AND deleted = 0 AND skipped = 0 AND (is_latest = 1 OR ? = 0) "
      "ORDER BY object, id");
  statement.bindInt(1, latestOnly ? 1 : 0);
  std::vector<Pending> out;
  while (statement.step())
    out.push_back({statement.columnText(0), statement.columnText(1), statement.columnText(2),
                   statement.columnText(3), statement.columnInt(4), statement.columnInt(5)});
  return out;
}

void forgetMissingBodies(SQLiteDB& db, const std::filesystem::path& filesFolder) {
  std::vector<std::string> missing;
  {
    auto statement = db.prepare(
        "SELECT id, name_on_disk FROM file_versions WHERE downloaded = 1 AND deleted = 0");
    std::error_code error;
    while (statement.step())
      if (!std::filesystem::exists(filesFolder / SafeFileName::clean(statement.columnText(1)),
                                   error) &&
          !error)
        missing.push_back(statement.columnText(0));
  }
  if (missing.empty()) return;
  auto update = db.prepare(
      "UPDATE file_versions SET downloaded = 0, attempts = 0, failure = '', skipped = 0 WHERE id = "
      "?");
  for (const auto& id : missing) {
    update.reset();
    update.bindText(1, id);
    update.run();
  }
}

std::string md5Hex(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw FileError(FileError::Kind::open, file, errno);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                  &EVP_MD_CTX_free);
  EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr);
  std::array<char, 1 << 16> buffer;
  for (;;) {
    const auto got = ::read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      const int error = errno;
      ::close(fd);
      throw FileError(FileError::Kind::read, file, error);
    }
    if (got == 0) break;
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(got));
  }
  ::close(fd);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &length);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 0xF];
  }
  return out;
}

Fetched fetch(BackupTransport& transport, const BackupLocation& location, const Pending& body) {
  const auto partialFolder = location.partialFolder();
  std::error_code ignored;
  if (!std::filesystem::exists(partialFolder)) {
    std::filesystem::create_directories(partialFolder, ignored);
    if (!std::filesystem::is_directory(partialFolder))
      throw FileError(FileError::Kind::createFolder, partialFolder, 0);
  }
  const auto partial = partialFolder / (SafeFileName::clean(body.id, 40) + ".part");
  Fetched fetched;
  fetched.bytes = transport.download(bodyPath(body.object, body.id), partial);
  if (body.size > 0 && fetched.bytes != body.size) {
    std::filesystem::remove(partial, ignored);
    fetched.failure = "Salesforce sent " + std::to_string(fetched.bytes) +
                      " bytes of a file it says holds " + std::to_string(body.size) + ".";
    // Fewer bytes than promised is a transfer cut short, not an answer.
    if (fetched.bytes < body.size) fetched.kind = Fetched::Failure::onTheWay;
    return fetched;
  }
  if (!body.checksum.empty() && !sameNoCase(md5Hex(partial), body.checksum)) {
    std::filesystem::remove(partial, ignored);
    fetched.failure = "The downloaded file did not match the checksum Salesforce gave for it.";
    return fetched;
  }
  DurableFile::open(partial).sync();
  // The name was made safe when the body was recorded; clean it again in case
  // the database was edited by hand: nothing may land outside Files.
  const auto target = location.filesFolder() / SafeFileName::clean(body.nameOnDisk);
  std::error_code error;
  std::filesystem::rename(partial, target, error);
  if (error) throw FileError(FileError::Kind::replace, target, error.value());
  Durable::syncFolder(location.filesFolder());
  fetched.stored = true;
  return fetched;
}

bool recordFetch(SQLiteDB& db, const Pending& body, const Fetched& fetched, int maxAttempts,
                 std::int64_t runId) {
  if (!fetched.stored && fetched.kind == Fetched::Failure::onTheWay) {
    db.prepare("UPDATE file_versions SET failure = ? WHERE id = ?")
        .bindText(1, fetched.failure)
        .bindText(2, body.id)
        .run();
    return false;
  }
  const bool givenUp = !fetched.stored && (fetched.kind == Fetched::Failure::final ||
                                           body.attempts + 1 >= maxAttempts);
  db.prepare(
        "UPDATE file_versions SET downloaded = ?, attempts = attempts + 1, failure = ?, "
        "skipped = ?, skipped_run = CASE WHEN ? THEN ? ELSE skipped_run END WHERE id = ?")
      .bindInt(1, fetched.stored ? 1 : 0)
      .bindText(2, fetched.failure)
      .bindInt(3, givenUp ? 1 : 0)
      .bindInt(4, givenUp ? 1 : 0)
      .bindInt(5, runId)
      .bindText(6, body.id)
      .run();
  return givenUp;
}

void retryGivenUp(SQLiteDB& db, std::int64_t runId) {
  db.prepare(
        "UPDATE file_versions SET skipped = 0, attempts = 0 WHERE skipped = 1 AND deleted = 0 "
        "AND skipped_run <> ?")
      .bindInt(1, runId)
      .run();
}

std::vector<GivenUp> givenUp(SQLiteDB& db) {
  auto statement = db.prepare(
      "SELECT id, name_on_disk, failure FROM file_versions WHERE skipped = 1 AND deleted = 0 "
      "ORDER BY object, id");
  std::vector<GivenUp> out;
  while (statement.step())
    out.push_back({statement.columnText(0), statement.columnText(1), statement.columnText(2)});
  return out;
}

}  // namespace corvane::FileDownload
