#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "TransferHarness.h"
#include "inspect/FailureAdvice.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;

/// Sends each request to another address, and notes connections and fields. Arguments: certificate, key, address, log.
constexpr const char* program = R"(
import http.server, ssl, sys
certificate, key, address, log = sys.argv[1:]
def note(line):
    with open(log, 'a') as out: out.write(line + '\n')
class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        for name, value in self.headers.items(): note('%s: %s' % (name.lower(), value))
        self.send_response(302)
        self.send_header('Location', address)
        self.send_header('Content-Length', '0')
        self.end_headers()
    def log_message(self, *words): pass
class Server(http.server.ThreadingHTTPServer):
    def get_request(self):
        connection, client = super().get_request()
        note('connection')
        return context.wrap_socket(connection, server_side=True), client
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(certificate, key)
server = Server(('127.0.0.1', 0), Handler)
note('port %d' % server.server_address[1])
server.serve_forever()
)";

/// A TLS server on the loopback whose certificate, made for this test, is for 127.0.0.1.
class TransferTLSTest : public testing::Test {
 protected:
  void SetUp() override {
    run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
         "-subj", "/CN=tarn test", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key_, "-out", certificate_});
    std::ofstream(script_) << program;
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
    server_ = std::make_unique<ChildProgram>(
        std::vector<std::string>{"/usr/bin/env", "python3", script_, certificate_, key_, plain_.url("/file"), log_},
        place_.path());
    ASSERT_TRUE(eventually([&] { return noted("port ") == 1; })) << server_->errors();
    const std::string text = contentOf(log_);
    port_ = text.substr(5, text.find('\n') - 5);
    plain_.serve("/file", ServedFile::of(video(1)));
  }
  void TearDown() override {
    for (const char* name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) ::unsetenv(name);
  }

  static void run(const std::vector<std::string>& command) {
    const ProcessResult result = runProcess(command);
    ASSERT_EQ(result.exitCode, 0) << result.output;
  }

  std::ptrdiff_t noted(const std::string& beginning) const {
    std::istringstream lines(contentOf(log_));
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(lines, line);) count += line.starts_with(beginning) ? 1 : 0;
    return count;
  }
  Heard fetch(const std::string& host) {
    harness_.start();
    const TransferOptions options{.headers = {"Authorization: Bearer secret", "X-Own: secret"},
                                  .cookies = "127.0.0.1\tFALSE\t/\tFALSE\t0\tsid\tsecret\n",
                                  .referer = "https://127.0.0.1/secret"};
    auto task = harness_.session->downloadTask("https://" + host + ":" + port_ + "/start", "", options);
    task->resume();
    return harness_.listener->waitForEnd(task->taskIdentifier());
  }

  TempDirectory place_;
  const std::string certificate_ = place_ / "certificate.pem", key_ = place_ / "key.pem", log_ = place_ / "log",
                    script_ = place_ / "server.py";
  FaultServer plain_;
  std::unique_ptr<ChildProgram> server_;
  std::string port_;
  Harness harness_;
};

TEST_F(TransferTLSTest, NothingSecretFollowsARedirectionToAnOpenConnection) {
  ::unsetenv("CURL_CA_BUNDLE");
  ::setenv("SSL_CERT_FILE", certificate_.c_str(), 1);
  EXPECT_EQ(fetch("127.0.0.1").file, video(1));
  for (const char* line : {"authorization: Bearer secret", "x-own: secret", "cookie: sid=secret", "referer: https:"}) {
    EXPECT_EQ(noted(line), 1) << line;
  }
  ASSERT_EQ(plain_.requests().size(), 1U);
  const ReceivedRequest request = plain_.requests()[0];
  for (const auto& [name, value] : request.headers) EXPECT_EQ(value.find("secret"), std::string::npos) << name;
}

TEST_F(TransferTLSTest, AServerThatCannotProveWhoItIsFailsAtOnceInPlainWords) {
  struct Row {
    const char* host;
    bool isTrusted;
    const char* words;
  };
  std::ptrdiff_t connections = 0;
  for (const Row& row : {Row{"127.0.0.1", false, "nobody whom this machine trusts has signed the server's certificate"},
                         Row{"localhost", true, "the server's certificate is for another name"}}) {
    if (row.isTrusted) ::setenv("CURL_CA_BUNDLE", certificate_.c_str(), 1);
    const Heard heard = fetch(row.host);
    ASSERT_TRUE(heard.error) << row.host;
    EXPECT_THAT(heard.error->description(), HasSubstr(row.words));
    EXPECT_EQ(noted("connection"), ++connections) << "it is not tried again";
    const auto advice =
        adviceFor(RunOutcome::failed(1, RunOutcome::Where::transfer, std::make_exception_ptr(*heard.error)));
    EXPECT_FALSE(advice.mayTryAgain);
    EXPECT_THAT(advice.words, HasSubstr("cannot prove who it is: check the address"));
    harness_.stop();
  }
  EXPECT_EQ(noted("authorization"), 0);
  EXPECT_TRUE(plain_.requests().empty());
}

}  // namespace
}  // namespace tarn::test
