#include "KELVOCore/HttpServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "TestSupport.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A raw TCP client on loopback; every wait gives up after a few seconds so a
// fault fails the test instead of hanging it.
class Client {
 public:
  explicit Client(std::int64_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool send(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // Reads what arrives within `wait`; false once the peer has closed (or reset).
  bool pump(std::chrono::milliseconds wait) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) return true;
    char chunk[65536];
    const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    data_.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
  // The next whole response (head and Content-Length body), "" if none comes.
  std::string response() {
    const auto giveUp = Clock::now() + 10s;
    for (;;) {
      const std::size_t end = data_.find("\r\n\r\n");
      const std::size_t at = data_.find("Content-Length: ");
      const std::size_t length = end != std::string::npos && at < end ? std::stoul(data_.substr(at + 16, 20)) : 0;
      if (end != std::string::npos && data_.size() >= end + 4 + length) {
        std::string r = data_.substr(0, end + 4 + length);
        data_.erase(0, r.size());
        return r;
      }
      if (Clock::now() > giveUp || !pump(100ms)) return {};
    }
  }
  // True when the peer closes within `wait`; what it sent meanwhile stays in data().
  bool closedWithin(std::chrono::milliseconds wait) {
    const auto giveUp = Clock::now() + wait;
    while (Clock::now() < giveUp) {
      if (!pump(20ms)) return true;
    }
    return false;
  }
  const std::string& data() const { return data_; }

 private:
  int fd_;
  std::string data_;
};

std::string request(std::string_view target, std::string_view extra = "") {
  return "GET " + std::string(target) + " HTTP/1.1\r\nHost: x\r\n" + std::string(extra) + "\r\n";
}

// Answers "METHOD path body" with the status of ?status=, after ?sleep= ms,
// from ?file= when given (opened, then that path deleted and written anew, as
// an eviction and a new line would), or once `gate` opens for /block; /missing
// and /crash throw. A body received into a file is answered as "file:" and its size.
struct EchoServer {
  explicit EchoServer(HttpServer::Options options = {})
      : server("127.0.0.1", 0, [this](const HttpRequest& r) { return handle(r); }, options) {
    server.start();
  }
  HttpResponse handle(const HttpRequest& r) {
    ++calls;
    if (r.path == "/block") gate.wait();
    if (r.path == "/missing") throw TtsError(TtsErrorCode::notFound, "gone");
    if (r.path == "/crash") throw std::runtime_error("boom");
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(r.queryValue("sleep", "0"))));
    const std::string got = r.bodyFile.empty() ? r.bodyText() : "file:" + std::to_string(std::filesystem::file_size(r.bodyFile));
    HttpResponse response = HttpResponse::text(std::stoi(r.queryValue("status", "200")), r.method + " " + r.path + " " + got);
    response.headers["X-b"] = "2";
    response.headers["A-first"] = "1";
    if (const std::string path = r.queryValue("file"); !path.empty()) {
      response.bodyFile = std::make_shared<const OpenFile>(OpenFile::open(path).value());
      std::filesystem::remove(path);
      test::writeTextFile(path, "a newer line");
    }
    return response;
  }
  std::int64_t port() const { return server.boundPort(); }

  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
  std::atomic<int> calls{0};
  HttpServer server;
};

std::string body(const std::string& response) { return response.substr(response.find("\r\n\r\n") + 4); }

TEST(HttpMessageTest, RequestAccessorsAndResponseBytes) {
  HttpRequest r;
  r.headers = {{"Content-Type", "text/plain"}, {"x-KELVO-a", "1"}};
  r.query = "text=Flight+CA%2081%20%E5%88%B0&bad=%zz%4&empty=&flag&a%3Db=c";
  EXPECT_EQ(r.header("content-type"), "text/plain");
  EXPECT_EQ(r.header("X-Kelvo-A"), "1");
  EXPECT_EQ(r.header("accept"), "");
  const std::pair<std::string, std::string> query[] = {
      {"text", "Flight CA 81 到"}, {"bad", "%zz%4"}, {"empty", ""}, {"flag", ""}, {"a=b", "c"}, {"missing", "def"}};
  for (const auto& [name, want] : query) EXPECT_EQ(r.queryValue(name, "def"), want) << name;

  const std::pair<std::string, std::string> texts[] = {
      {"ok 航班", "ok 航班"}, {"a\xFF" "b", "a\xEF\xBF\xBD" "b"}, {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"cut \xE5\x88", "cut \xEF\xBF\xBD"}};
  for (const auto& [in, want] : texts) {
    r.body.assign(in.begin(), in.end());
    EXPECT_EQ(r.bodyText(), want);
  }

  const std::pair<std::int64_t, std::string> phrases[] = {
      {200, "OK"}, {201, "OK"}, {202, "Accepted"}, {204, "No Content"}, {304, "Not Modified"}, {400, "Bad Request"},
      {404, "Not Found"}, {405, "Method Not Allowed"}, {413, "Payload Too Large"}, {429, "Too Many Requests"},
      {500, "Internal Server Error"}, {503, "Service Unavailable"}, {504, "Gateway Timeout"}, {418, "OK"}};
  for (const auto& [status, phrase] : phrases) EXPECT_EQ(reasonPhrase(status), phrase) << status;

  // A repeated name keeps the value set last through [], the first through a list or try_emplace.
  HttpHeaders h{{"b", "1"}, {"a", "2"}, {"b", "3"}};
  h["b"] = "4";
  EXPECT_FALSE(h.try_emplace("a", "5").second);
  EXPECT_TRUE(h.try_emplace("A", "6").second);
  EXPECT_EQ(std::vector<HttpHeaders::value_type>(h.begin(), h.end()),
            (std::vector<HttpHeaders::value_type>{{"A", "6"}, {"a", "2"}, {"b", "4"}}));
  EXPECT_THROW(static_cast<void>(h.at("c")), std::out_of_range);

  HttpResponse e = HttpResponse::error(413, "body_too_large", "big");
  e.headers["X-Evil"] = "a\r\nSet-Cookie: b";
  e.headers["content-length"] = "999";
  e.headers["ETag"] = "\"1\"";
  EXPECT_EQ(serializeResponseHead(e, e.body.size(), true) + std::string(e.body.begin(), e.body.end()),
            "HTTP/1.1 413 Payload Too Large\r\nContent-Type: application/json; charset=utf-8\r\nETag: \"1\"\r\n"
            "X-Evil: a  Set-Cookie: b\r\nContent-Length: 42\r\nConnection: close\r\n\r\n"
            "{\"error\":\"body_too_large\",\"message\":\"big\"}");
  const HttpResponse t = HttpResponse::text(201, "hi");
  EXPECT_EQ(serializeResponseHead(t, 2, false),
            "HTTP/1.1 201 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: 2\r\nConnection: keep-alive\r\n\r\n");
}

TEST(HttpServerTest, SegmentsPipeliningAndClose) {
  EchoServer s;
  Client c(s.port());
  // Headers in one segment and the body in two: one answer, after the last byte.
  c.send("POST /echo HTTP/1.1\r\nContent-Length: 6\r\n\r\n");
  EXPECT_FALSE(c.closedWithin(100ms));
  c.send("ab");
  EXPECT_FALSE(c.closedWithin(100ms));
  EXPECT_EQ(c.data(), "");
  c.send("cdef");
  EXPECT_EQ(c.response(),
            "HTTP/1.1 200 OK\r\nA-first: 1\r\nContent-Type: text/plain; charset=utf-8\r\nX-b: 2\r\n"
            "Content-Length: 17\r\nConnection: keep-alive\r\n\r\nPOST /echo abcdef");
  // Three requests in one write; the slow first one still answers first.
  c.send(request("/one?sleep=150&status=201") + request("/two") +
         "POST /three HTTP/1.1\r\nConnection: close\r\nContent-Length: 1\r\n\r\nz");
  const std::string one = c.response();
  EXPECT_TRUE(one.starts_with("HTTP/1.1 201 OK\r\n")) << one;
  EXPECT_EQ(body(one), "GET /one ");
  EXPECT_EQ(body(c.response()), "GET /two ");
  const std::string three = c.response();
  EXPECT_NE(three.find("\r\nConnection: close\r\n"), std::string::npos);
  EXPECT_EQ(body(three), "POST /three z");
  EXPECT_TRUE(c.closedWithin(5s));
  EXPECT_EQ(s.calls, 4);

  // "Expect: 100-continue" is answered before the body is sent.
  Client e(s.port());
  e.send("PUT /up HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n");
  EXPECT_EQ(e.response(), "HTTP/1.1 100 Continue\r\n\r\n");
  e.send("ok");
  EXPECT_EQ(body(e.response()), "PUT /up ok");
  // A handler's exception becomes an error answer; the connection lives on.
  e.send(request("/missing") + request("/crash"));
  const std::string missing = e.response();
  EXPECT_TRUE(missing.starts_with("HTTP/1.1 404 Not Found\r\n")) << missing;
  EXPECT_EQ(body(missing), R"({"error":"not_found","message":"gone"})");
  const std::string crash = e.response();
  EXPECT_TRUE(crash.starts_with("HTTP/1.1 500 Internal Server Error\r\n")) << crash;
  EXPECT_NE(crash.find("internal_error"), std::string::npos);
}

TEST(HttpServerTest, FileBodiesGoOutWhole) {
  test::TempDir dir;
  std::string content(6 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 % 251);
  test::writeTextFile(dir.path() + "line.wav", content);
  EchoServer s;
  Client c(s.port());  // 6 MB is more than a socket takes at once: the send must resume
  c.send(request("/f?file=" + dir.path() + "line.wav") + request("/f?file=" + dir.path() + "line.wav") +
         request("/after"));
  const std::string file = c.response();
  EXPECT_NE(file.find("\r\nContent-Length: 6291456\r\n"), std::string::npos);
  EXPECT_TRUE(body(file) == content);
  EXPECT_EQ(body(c.response()), "a newer line");  // the file that took the name
  EXPECT_EQ(body(c.response()), "GET /after ");

  // Nothing follows the head of an empty file, so it must not wait for more:
  // held back, it would go out only when the kernel gives up, 200 ms later.
  test::writeTextFile(dir.path() + "empty.wav", "");
  const auto asked = Clock::now();
  c.send(request("/f?file=" + dir.path() + "empty.wav"));
  EXPECT_NE(c.response().find("\r\nContent-Length: 0\r\nConnection: keep-alive\r\n\r\n"), std::string::npos);
  EXPECT_LT(Clock::now() - asked, 150ms);
}

TEST(HttpServerTest, RefusalsAnswerThenClose) {
  setUiLang(UiLang::en);
  AppLog::clear();
  EchoServer s;
  struct Case {
    std::string sent;
    std::string statusLine;
    std::string error;
  };
  const Case cases[] = {
      {"HELLO\r\n\r\n", "HTTP/1.1 400 Bad Request", "bad_request"},
      {"GET / HTTP/1.1\r\nX: " + std::string(70 * 1024, 'a') + "\r\n\r\n", "HTTP/1.1 400 Bad Request", "headers_too_large"},
      // The body is never sent: the answer must come from the header alone.
      {"POST / HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n", "HTTP/1.1 413 Payload Too Large", "body_too_large"},
      {"POST / HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n", "HTTP/1.1 413 Payload Too Large", "body_too_large"},
  };
  for (const Case& k : cases) {
    Client c(s.port());
    c.send(k.sent);
    const std::string r = c.response();
    EXPECT_TRUE(r.starts_with(k.statusLine + "\r\n")) << r;
    EXPECT_NE(r.find("\r\nConnection: close\r\n"), std::string::npos);
    EXPECT_EQ(jStr(parseJsonObject(body(r)).value_or(Json()), "error"), k.error);
    EXPECT_TRUE(c.closedWithin(5s));
  }
  EXPECT_EQ(s.calls, 0);
  const auto lines = AppLog::snapshot();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const LogEntry& e) { return e.text.find("answered 413") != std::string::npos; }), 1);
  setUiLang(UiLang::automatic);
}

TEST(HttpServerTest, ReceiveAndIdleTimeoutsSpareHandlers) {
  test::TempDir dir;
  HttpServer::Options quick;
  quick.receiveTimeout = 300ms;
  quick.idleTimeout = 400ms;
  quick.firstByteTimeout = 200ms;
  quick.spoolsBody = [](std::string_view, std::string_view path, std::string_view) { return path == "/upload"; };
  quick.spoolBase = dir.path() + "up";
  EchoServer s(quick);
  // A connection that never sends a byte is dropped first.
  Client silent(s.port());
  EXPECT_TRUE(silent.closedWithin(2s));
  // The receive clock starts at the first byte; a trickle does not reset it.
  Client slow(s.port());
  const std::string head = request("/never");
  std::size_t sent = 0;
  while (sent < head.size() && slow.send(head.substr(sent, 1))) {
    ++sent;
    if (slow.closedWithin(50ms)) break;
  }
  EXPECT_LT(sent, head.size());
  EXPECT_TRUE(slow.closedWithin(5s));
  EXPECT_EQ(slow.data(), "");
  // A handler slower than both timeouts still answers; then the idle one closes.
  Client c(s.port());
  c.send(request("/slow?sleep=700"));
  EXPECT_EQ(body(c.response()), "GET /slow ");
  EXPECT_TRUE(c.closedWithin(5s));
  EXPECT_EQ(s.calls, 1);
  // An upload into a file outlasts the receive clock while every MiB comes in
  // time; a trickle of bytes does not.
  Client upload(s.port());
  upload.send("POST /upload HTTP/1.1\r\nContent-Length: 3145728\r\n\r\n");
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(200ms);
    upload.send(std::string(1 << 20, 'u'));
  }
  EXPECT_EQ(body(upload.response()), "POST /upload file:3145728");
  Client trickle(s.port());
  trickle.send("POST /upload HTTP/1.1\r\nContent-Length: 100\r\n\r\n");
  int trickled = 0;
  while (trickled < 100 && trickle.send("t") && !trickle.closedWithin(50ms)) ++trickled;
  EXPECT_LT(trickled, 100);
  EXPECT_TRUE(trickle.closedWithin(5s));
  EXPECT_EQ(trickle.data(), "");
}

TEST(HttpServerTest, AtTheCapTheLongestWaitingConnectionMakesRoom) {
  EchoServer s;
  // Every connection busy receiving a request: one more is closed unanswered.
  std::vector<std::unique_ptr<Client>> clients;
  for (std::size_t i = 0; i < HttpServer::maxConnections; ++i) {
    clients.push_back(std::make_unique<Client>(s.port()));
    clients.back()->send("GET /partial HTTP/1.1\r\n");
  }
  std::this_thread::sleep_for(500ms);  // for the server to read them all
  Client extra(s.port());
  EXPECT_TRUE(extra.closedWithin(5s));
  EXPECT_EQ(extra.data(), "");
  clients.clear();
  std::this_thread::sleep_for(500ms);

  // Idle ones, fresh or kept alive: each newcomer closes the one that has
  // waited longest, and its request is answered.
  for (std::size_t i = 0; i < HttpServer::maxConnections; ++i) clients.push_back(std::make_unique<Client>(s.port()));
  clients[1]->send(request("/kept"));
  EXPECT_EQ(body(clients[1]->response()), "GET /kept ");
  std::this_thread::sleep_for(100ms);
  for (int round = 0; round < 3; ++round) {
    Client late(s.port());
    late.send(request("/late"));
    EXPECT_EQ(body(late.response()), "GET /late ") << round;
  }
  // The three that waited longest: 0, 2 and 3 (1 waits only since its answer).
  for (const std::size_t i : {0, 2, 3}) EXPECT_TRUE(clients[i]->closedWithin(5s)) << i;
  for (const std::size_t i : {1, 4}) EXPECT_FALSE(clients[i]->closedWithin(0ms)) << i;
}

TEST(HttpServerTest, NamedRequestsReceiveLargeBodiesIntoFiles) {
  setUiLang(UiLang::en);
  test::TempDir dir;
  EchoServer s({.spoolsBody = [](std::string_view method, std::string_view path, std::string_view) { return method == "POST" && path == "/big"; },
                .spoolBase = dir.path() + "up/pack"});
  const auto spoolFiles = [&] {
    std::error_code ec;
    return std::distance(std::filesystem::directory_iterator(dir.path() + "up", ec), std::filesystem::directory_iterator());
  };
  // Over the usual limit, received whole, and never in memory.
  const std::string large(HttpServer::maxBodyBytes + 1, 'x');
  Client c(s.port());
  c.send("POST /big?x=1 HTTP/1.1\r\nContent-Length: " + std::to_string(large.size()) + "\r\n\r\n");
  c.send(large);
  EXPECT_EQ(body(c.response()), "POST /big file:" + std::to_string(large.size()));
  EXPECT_EQ(spoolFiles(), 0);
  // Refused from the header alone, each with the limit that applies to it.
  struct Case {
    std::string head;
    std::string limit;
  };
  const Case cases[] = {
      {"POST /big HTTP/1.1\r\nContent-Length: " + std::to_string(HttpServer::maxSpooledBodyBytes + 1), "512 MB"},
      {"PUT /big HTTP/1.1\r\nContent-Length: " + std::to_string(HttpServer::maxBodyBytes + 1), "64 MB"},
      {"POST /small HTTP/1.1\r\nContent-Length: " + std::to_string(HttpServer::maxBodyBytes + 1), "64 MB"},
  };
  for (const Case& k : cases) {
    Client refused(s.port());
    refused.send(k.head + "\r\n\r\n");
    const std::string r = refused.response();
    EXPECT_TRUE(r.starts_with("HTTP/1.1 413 Payload Too Large\r\n")) << r;
    EXPECT_NE(r.find("over the " + k.limit + " limit"), std::string::npos) << r;
  }
  // A client that gives up half way leaves no file behind.
  {
    Client quitter(s.port());
    quitter.send("POST /big HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n" + std::string(500000, 'y'));
    for (int i = 0; i < 100 && spoolFiles() == 0; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(spoolFiles(), 1);
  }
  for (int i = 0; i < 500 && spoolFiles() > 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(spoolFiles(), 0);
  EXPECT_EQ(s.calls, 1);
  setUiLang(UiLang::automatic);
}

TEST(HttpServerTest, PortInUseAndSlowHandlersBlockNobody) {
  setUiLang(UiLang::en);
  auto s = std::make_unique<EchoServer>();
  HttpServer second("127.0.0.1", s->port(), [](const HttpRequest&) { return HttpResponse::text(200, ""); });
  const auto began = Clock::now();
  try {
    second.start();
    ADD_FAILURE() << "bound a port already in use";
  } catch (const TtsError& e) {
    EXPECT_EQ(e.message, "port " + std::to_string(s->port()) +
                             " is already in use.\neither another KELVO is already running (see `kelvo status` or "
                             "`systemctl status kelvo`),\nor another program has taken it (`ss -ltnp` shows which) - "
                             "pick another port with `kelvo serve --port` or \"port\" under \"server\" in config.json.");
  }
  // An address of no interface here (TEST-NET-1): no other port would help, so no port talk.
  HttpServer elsewhere("192.0.2.1", 0, [](const HttpRequest&) { return HttpResponse::text(200, ""); });
  try {
    elsewhere.start();
    ADD_FAILURE() << "bound an address that is not on this machine";
  } catch (const TtsError& e) {
    EXPECT_EQ(e.message, "192.0.2.1 is not an address of this machine, so KELVO cannot listen on it.\nUse 0.0.0.0 "
                         "(every address) or one that `ip -brief address` lists: `kelvo serve --bind`, or \"bind\" "
                         "under \"server\" in config.json.");
  }
  EXPECT_LT(Clock::now() - began, 5s);
  EXPECT_FALSE(second.isRunning());
  setUiLang(UiLang::automatic);

  // More blocked handlers than the pool starts with; another client still gets through.
  std::vector<std::unique_ptr<Client>> blocked;
  for (int i = 0; i < 8; ++i) {
    blocked.push_back(std::make_unique<Client>(s->port()));
    blocked.back()->send(request("/block"));
  }
  Client quick(s->port());
  quick.send(request("/quick"));
  EXPECT_EQ(body(quick.response()), "GET /quick ");
  // stop() does not wait for them; their connections close without an answer.
  s->server.stop();
  s->server.stop();
  EXPECT_FALSE(s->server.isRunning());
  for (auto& c : blocked) EXPECT_TRUE(c->closedWithin(5s));
  for (auto& c : blocked) EXPECT_EQ(c->data(), "");
  // Started again, it serves; the released handlers' answers go nowhere.
  s->opener.set_value();
  s->server.start();
  Client again(s->port());
  again.send(request("/again"));
  EXPECT_EQ(body(again.response()), "GET /again ");
  s.reset();
}

TEST(HttpServerTest, ReachableUrls) {
  const auto urls = reachableUrls("0.0.0.0", 17150);
  ASSERT_FALSE(urls.empty());
  EXPECT_EQ(urls.back(), "http://127.0.0.1:17150");
  int lastRank = 0;
  for (std::size_t i = 0; i + 1 < urls.size(); ++i) {
    EXPECT_FALSE(urls[i].starts_with("http://127.") || urls[i].starts_with("http://169.254.")) << urls[i];
    const int rank = urls[i].starts_with("http://192.168.") ? 0 : 1;
    EXPECT_GE(rank, lastRank) << urls[i];
    lastRank = rank;
  }
  EXPECT_EQ(reachableUrls("10.1.2.3", 80), std::vector<std::string>{"http://10.1.2.3:80"});
}

}  // namespace
}  // namespace kelvo
