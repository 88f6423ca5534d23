// SPF and DKIM checks against a real DNS server: dnsmasq, started on a
// loopback port with this test's own records.
#include "health/txt_resolver.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "health/email_domains.hpp"
#include "platform/child_process.hpp"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Verdict = DomainCheck::Verdict;

const char* const kDnsmasq = "/usr/sbin/dnsmasq";

// A UDP socket bound to a free loopback port; kept open, it is a server that never answers.
struct SilentServer {
  int fd = -1;
  int port = 0;
  SilentServer() {
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  ~SilentServer() { close(fd); }
};

class TXTResolverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!ChildProcess::isExecutableFile(kDnsmasq)) {
      GTEST_SKIP() << "dnsmasq is not installed (" << kDnsmasq
                   << "); scripts/setup installs the dnsmasq-base package.";
    }
    // dnsmasq listens on the port over UDP and TCP; a port free over UDP a
    // moment ago may be another test's TCP server, so a start that ends at
    // once is tried again on another port.
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (startDnsmasq()) return;
    }
    FAIL() << "dnsmasq did not start on " << server_;
  }

  // Starts dnsmasq on a free port; true once it answers.
  bool startDnsmasq() {
    int port = 0;
    {
      SilentServer probe;  // a port that was free a moment ago
      port = probe.port;
    }
    server_ = "127.0.0.1:" + std::to_string(port);
    ProcessRequest request;
    request.executable = kDnsmasq;
    request.arguments = {
        "--no-daemon",
        "--conf-file=/dev/null",
        "--port=" + std::to_string(port),
        "--listen-address=127.0.0.1",
        "--bind-interfaces",
        "--no-resolv",
        "--no-hosts",
        "--pid-file",
        "--local=/test/",
        "--txt-record=acme.test,google-site-verification=abc",
        "--txt-record=acme.test,v=spf1 mx include:_spf.salesforce.com ~all",
        "--txt-record=sf1._domainkey.acme.test,v=DKIM1; k=rsa; p=MIGfMA0GCSqGSIb3DQEB",
        "--txt-record=twice.test,v=spf1 include:_spf.salesforce.com ~all",
        "--txt-record=twice.test,v=spf1 include:_spf.google.com ~all",
        "--txt-record=other.test,v=spf1 include:_spf.google.com -all"};
    dnsmasq_ = RunningProcess::start(request);
    // Ready once it answers anything at all.
    TXTResolver probe({server_, 300ms});
    for (int i = 0; i < 30; ++i) {
      if (probe.lookup("acme.test").status != TXTAnswer::Status::failed) return true;
      if (dnsmasq_->poll()) break;
      std::this_thread::sleep_for(100ms);
    }
    if (!dnsmasq_->poll()) dnsmasq_->terminate();
    dnsmasq_.reset();
    return false;
  }

  void TearDown() override {
    if (!dnsmasq_) return;
    dnsmasq_->terminate();
    for (int i = 0; i < 50 && !dnsmasq_->poll(); ++i) std::this_thread::sleep_for(20ms);
  }

  std::string server_;
  std::optional<RunningProcess> dnsmasq_;
};

TEST_F(TXTResolverTest, ChecksPublishedMissingAndDuplicateRecords) {
  TXTResolver resolver({server_, 2s});
  auto checks = EmailDomains::check(
      resolver, {"acme.test", "twice.test", "nothing.test", "other.test"}, {"sf1", "sf2"});
  ASSERT_EQ(checks.size(), 12u);
  EXPECT_EQ(checks[0].verdict, Verdict::pass) << checks[0].advice;
  EXPECT_EQ(checks[0].records,
            std::vector<std::string>{"v=spf1 mx include:_spf.salesforce.com ~all"});
  EXPECT_EQ(checks[1].verdict, Verdict::invalid) << checks[1].advice;
  EXPECT_EQ(checks[2].verdict, Verdict::missing) << checks[2].advice;
  EXPECT_EQ(checks[3].verdict, Verdict::incomplete) << checks[3].advice;
  EXPECT_EQ(checks[4].name, "sf1._domainkey.acme.test");
  EXPECT_EQ(checks[4].verdict, Verdict::pass) << checks[4].advice;
  EXPECT_EQ(checks[5].name, "sf2._domainkey.acme.test");
  EXPECT_EQ(checks[5].verdict, Verdict::missing) << checks[5].advice;
  EXPECT_NE(checks[5].advice.find("sf2._domainkey.acme.test"), std::string::npos);
}

TEST_F(TXTResolverTest, ASilentOrAbsentServerEndsWithinTheTimeLimit) {
  SilentServer silent;
  TXTResolver resolver({"127.0.0.1:" + std::to_string(silent.port), 400ms});
  const auto start = std::chrono::steady_clock::now();
  auto check = EmailDomains::spf("acme.test", resolver.lookup("acme.test"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
  EXPECT_EQ(check.verdict, Verdict::unknown);
  EXPECT_NE(check.advice.find("no usable answer"), std::string::npos) << check.advice;

  // Stopped server: nothing listens on the port any more.
  TearDown();
  dnsmasq_.reset();
  auto gone = TXTResolver({server_, 400ms}).lookup("acme.test");
  EXPECT_EQ(gone.status, TXTAnswer::Status::failed);
  EXPECT_FALSE(gone.reason.empty());
}

TEST(TXTResolver, ABadServerAddressIsAFailureNotACrash) {
  auto answer = TXTResolver({"not a server", 200ms}).lookup("acme.test");
  EXPECT_EQ(answer.status, TXTAnswer::Status::failed);
  EXPECT_NE(answer.reason.find("not a server"), std::string::npos);
}

}  // namespace
}  // namespace corvane
