// The stand-in's retrieve against an org whose zip tries to write outside the
// project, and whose Metadata API answers with a fault.
#include "tools/orgsim/sf/metadata_commands.hpp"

#include <zip.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>

#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/sf/cli_failure.hpp"

namespace corvane::sfstandin {
namespace {

namespace fs = std::filesystem;

std::string zipOf(const std::vector<std::pair<std::string, std::string>>& files) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_buffer_create(nullptr, 0, 0, &error);
  zip_source_keep(source);
  zip_t* archive = zip_open_from_source(source, ZIP_TRUNCATE, &error);
  for (const auto& [name, content] : files) {
    zip_file_add(archive, name.c_str(),
                 zip_source_buffer(archive, content.data(), content.size(), 0), 0);
  }
  zip_close(archive);
  zip_source_open(source);
  zip_source_seek(source, 0, SEEK_END);
  std::string bytes(static_cast<std::size_t>(zip_source_tell(source)), '\0');
  zip_source_seek(source, 0, SEEK_SET);
  zip_source_read(source, bytes.data(), bytes.size());
  zip_source_close(source);
  zip_source_free(source);
  return bytes;
}

std::string base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                               reinterpret_cast<const unsigned char*>(bytes.data()),
                               static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// Answers retrieve and checkRetrieveStatus with a fixed zip, or every call with a fault.
class MetadataOrg {
 public:
  explicit MetadataOrg(std::string zip, bool fault = false) : zip_(std::move(zip)), fault_(fault) {
    server_.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
      std::string body;
      if (fault_) {
        response.status = 500;
        body = "<soapenv:Fault><faultcode>sf:INVALID_SESSION_ID</faultcode><faultstring>"
               "INVALID_SESSION_ID: Invalid Session ID found in SessionHeader</faultstring>"
               "</soapenv:Fault>";
      } else if (request.body.find("<retrieve>") != std::string::npos) {
        body = "<retrieveResponse><result><done>false</done><id>09S1</id></result>"
               "</retrieveResponse>";
      } else {
        body = "<checkRetrieveStatusResponse><result><done>true</done><id>09S1</id><status>"
               "Succeeded</status><success>true</success><zipFile>" +
               base64(zip_) + "</zipFile></result></checkRetrieveStatusResponse>";
      }
      response.set_content("<soapenv:Envelope><soapenv:Body>" + body +
                               "</soapenv:Body></soapenv:Envelope>",
                           "text/xml");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  ~MetadataOrg() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  std::string zip_;
  bool fault_;
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

TEST(MetadataCommands, RetrieveWritesOnlyInsideTheProject) {
  TemporaryFolder folder;
  const fs::path project = folder.path() / "project";
  fs::create_directories(project);
  std::ofstream(project / "sfdx-project.json") << "{}";
  MetadataOrg org(zipOf({{"classes/Good.cls", "class Good {}"},
                         {"../../escaped.cls", "bad"},
                         {"classes/../../../escaped2.cls", "bad"},
                         {"/tmp/absolute.cls", "bad"},
                         {"package.xml", "<Package/>"}}));
  OrgHttp http(org.url(), "00D!token");
  auto result =
      MetadataCommands::retrieve({http, "00D!token", "62.0"}, {"ApexClass:Good"}, project);
  EXPECT_EQ(result["files"].size(), 1u) << result.dump();
  EXPECT_TRUE(fs::exists(project / "force-app/main/default/classes/Good.cls"));
  EXPECT_FALSE(fs::exists(folder.path() / "escaped.cls"));
  EXPECT_FALSE(fs::exists(project / "force-app/escaped2.cls"));
  EXPECT_FALSE(fs::exists(project / "force-app/main/default/package.xml"));
}

TEST(MetadataCommands, AFaultBecomesTheOrgsOwnWordsAndAProjectIsRequired) {
  TemporaryFolder folder;
  MetadataOrg org("", true);
  OrgHttp http(org.url(), "00D!token");
  try {
    MetadataCommands::listTypes({http, "00D!token", "62.0"});
    ADD_FAILURE() << "no failure";
  } catch (const CliFailure& failure) {
    EXPECT_EQ(failure.name(), "INVALID_SESSION_ID");
    EXPECT_NE(failure.description().find("Invalid Session ID"), std::string::npos);
  }
  EXPECT_THROW(MetadataCommands::retrieve({http, "00D!token", "62.0"}, {"ApexClass"}, folder.path()),
               CliFailure);
}

}  // namespace
}  // namespace corvane::sfstandin
