#include "KELVOCore/HttpServer.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include <boost/asio.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/WorkerPool.h"

namespace kelvo {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using ErrorCode = boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace {

// Each I/O thread runs its own io_context (its own epoll set), as a static
// file server runs one worker per core: a connection lives on one thread for
// its whole life, so its handlers need no strand and never change threads.
using Executor = asio::io_context::executor_type;
using Socket = tcp::socket::rebind_executor<Executor>::other;
using Timer = asio::steady_timer::rebind_executor<Executor>::other;

// A request body in memory or, when the session gave it a file once the
// header was in, in that file. Beast sets the reader up with the first body
// byte, so the choice is made in time.
struct SpoolBody {
  struct value_type {
    Bytes bytes;
    std::shared_ptr<TempFile> file;
    std::error_code failure;  // of the file write that stopped the body
  };

  class reader {
   public:
    template <bool isRequest, class Fields>
    reader(http::header<isRequest, Fields>&, value_type& body) : body_(body) {}

    void init(const boost::optional<std::uint64_t>& length, boost::beast::error_code& ec) {
      ec = {};
      // The body limit has already bounded the declared length.
      if (!body_.file && length) body_.bytes.reserve(static_cast<std::size_t>(*length));
    }

    template <class ConstBufferSequence>
    std::size_t put(const ConstBufferSequence& buffers, boost::beast::error_code& ec) {
      ec = {};
      std::size_t taken = 0;
      for (auto it = asio::buffer_sequence_begin(buffers); it != asio::buffer_sequence_end(buffers); ++it) {
        const asio::const_buffer b = *it;
        const std::span<const std::uint8_t> part(static_cast<const std::uint8_t*>(b.data()), b.size());
        if (!body_.file) {
          body_.bytes.insert(body_.bytes.end(), part.begin(), part.end());
        } else if (const std::error_code failed = body_.file->append(part)) {
          body_.failure = failed;
          ec = boost::system::errc::make_error_code(boost::system::errc::io_error);
          return taken;
        }
        taken += part.size();
      }
      return taken;
    }

    void finish(boost::beast::error_code& ec) { ec = {}; }

   private:
    value_type& body_;
  };
};

using RequestParser = http::request_parser<SpoolBody>;

// Reads are small while a header block comes in and large once a body does.
constexpr std::size_t headerReadBytes = 16 * 1024;
constexpr std::size_t bodyReadBytes = 256 * 1024;
// A body received into a file may take minutes; its receive clock restarts
// each time this much more of it has arrived, so it only has to keep moving
// (a trickle of a few bytes cannot hold the connection for ever).
constexpr std::uint64_t uploadProgressBytes = 1024 * 1024;
// After a response that ends the connection, what the client still sends is
// read and dropped for this long: closing with unread input would reset the
// connection and could destroy the response before the client has read it.
constexpr std::chrono::milliseconds lingerTime = std::chrono::seconds(2);
constexpr std::string_view continueResponse = "HTTP/1.1 100 Continue\r\n\r\n";
// Ends the log line of a breach, which is logged the first time only.
const std::string onlyOnce = " (later cases are not logged)";

// Each kind is logged the first time it happens in a server's life.
enum class Breach : int {
  headers,
  body,
  malformed,
  spool,
  firstByte,
  receiveTimeout,
  idleTimeout,
  sendTimeout,
  evicted,
  connections,
  accept,
  count
};

std::size_t ioThreadCount() { return std::max(1u, std::thread::hardware_concurrency()); }

std::string text(boost::beast::string_view s) { return std::string(s.data(), s.size()); }

std::string peerAddress(const Socket& socket) {
  ErrorCode ec;
  const tcp::endpoint ep = socket.remote_endpoint(ec);
  if (ec) return {};
  asio::ip::address a = ep.address();
  if (a.is_v6() && a.to_v6().is_v4_mapped()) a = asio::ip::make_address_v4(asio::ip::v4_mapped, a.to_v6());
  return a.to_string();
}

std::string urlHost(const std::string& host) { return host.find(':') == std::string::npos ? host : "[" + host + "]"; }

bool expectsContinue(const http::request_header<>& header) {
  return boost::beast::iequals(header[http::field::expect], "100-continue");
}

HttpRequest toRequest(http::request<SpoolBody>&& message, const std::string& peer) {
  HttpRequest r;
  r.method = text(message.method_string());
  const std::string target = text(message.target());
  const std::size_t q = target.find('?');
  r.path = target.substr(0, q);
  if (q != std::string::npos) r.query = target.substr(q + 1);
  r.headers.reserve(static_cast<std::size_t>(std::distance(message.begin(), message.end())));
  for (const auto& field : message) r.headers[text(field.name_string())] = text(field.value());
  r.body = std::move(message.body().bytes);
  r.peer = peer;
  return r;
}

// A service holding 1024 clients needs more descriptors than the usual soft
// limit of 1024; the hard limit is normally far higher.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t wanted = HttpServer::maxConnections + 256;
  if (limit.rlim_cur >= wanted) return;
  limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TtsError portInUse(std::int64_t port) {
  return TtsError(TtsErrorCode::none, TF("端口 %d 已经被占用了。", static_cast<int>(port)) + "\n" +
                                          T("要么已经有另一个 KELVO 在运行(看看托盘),") + "\n" +
                                          T("要么被别的程序占用了 - 可以在设置里换一个端口。"));
}

// A bind address that names no interface here: no port change would help.
TtsError addressNotHere(const std::string& address) {
  return TtsError(TtsErrorCode::none, TF("%s 不是这台机器的地址,KELVO 无法在上面监听。", address) + "\n" +
                                          T("请改用 0.0.0.0(所有地址)或 `ip -brief address` 列出的地址:"
                                            "`kelvo serve --bind`,或 config.json 里 \"server\" 的 \"bind\"。"));
}

}  // namespace

struct HttpServer::Impl {
  class Session;

  Impl(std::string bind, std::int64_t configuredPort, Handler h, Options o)
      : bindAddress(std::move(bind)), port(configuredPort), handler(std::move(h)), options(o) {}

  const std::string bindAddress;
  const std::int64_t port;
  const Handler handler;
  const Options options;
  QuickHandler quick;  // set before start(), read-only while running

  mutable std::mutex lock;  // guards the three below
  bool running = false;
  std::int64_t boundPort = 0;
  std::unordered_map<Session*, std::weak_ptr<Session>> sessions;  // every open connection
  std::array<std::atomic<bool>, static_cast<std::size_t>(Breach::count)> logged{};

  std::mutex lifecycle;  // serialises start() and stop()
  // One per I/O thread; the listener lives on the first and hands each new
  // connection to the next one in turn.
  std::vector<std::unique_ptr<asio::io_context>> ios = makeContexts();
  tcp::acceptor acceptor{*ios.front()};
  asio::steady_timer acceptRetry{*ios.front()};
  std::size_t nextContext = 0;  // used on the listener's thread only
  std::vector<asio::executor_work_guard<Executor>> work;
  std::vector<std::thread> ioThreads;

  static std::vector<std::unique_ptr<asio::io_context>> makeContexts() {
    std::vector<std::unique_ptr<asio::io_context>> contexts;
    // A hint of 1: each context is run by one thread, which spares the
    // scheduler its inter-thread wake-ups; posting from other threads stays safe.
    for (std::size_t i = 0; i < ioThreadCount(); ++i) contexts.push_back(std::make_unique<asio::io_context>(1));
    return contexts;
  }
  // Last, so it is destroyed first: it waits for the running handlers, which
  // use everything above.
  WorkerPool workers{"KELVO http work", std::max<std::size_t>(2, ioThreadCount()), maxConnections + 16};

  // True only for the first breach of `kind`.
  bool firstBreach(Breach kind) { return !logged[static_cast<std::size_t>(kind)].exchange(true); }

  HttpResponse runHandler(const HttpRequest& request) const {
    std::string what = "an unknown exception";
    try {
      return handler(request);
    } catch (const TtsError& e) {
      return HttpResponse::error(e.httpStatus(), errorName(e.code), e.message);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    AppLog::error("http", "handler failed on " + request.method + " " + request.path + ": " + what);
    return HttpResponse::error(500, "internal_error", TF("服务内部出错:%s", what));
  }

  std::optional<HttpResponse> runQuick(const HttpRequest& request) const {
    if (!quick) return std::nullopt;
    try {
      return quick(request);
    } catch (...) {
      return std::nullopt;  // the handler proper answers it, error and all
    }
  }

  void accept();
  void onAccept(const ErrorCode& ec, Socket socket);
  void forget(Session* session) {
    std::lock_guard guard(lock);
    sessions.erase(session);
  }
  // Takes the connection that has waited longest for a request out of
  // `sessions`, to be closed; null when every one is busy. REQUIRES: `lock` held.
  std::shared_ptr<Session> takeLongestWaitingLocked();
  std::string endpoint() const {
    std::lock_guard guard(lock);
    return "http://" + urlHost(bindAddress) + ":" + std::to_string(boundPort != 0 ? boundPort : port);
  }
};

// One connection: its socket, read buffer, parser and deadline. Everything but
// `abandoned_` and `waitingSince_` is touched only on the connection's I/O
// thread. Pending operations and the worker task hold it alive through
// shared_from_this().
class HttpServer::Impl::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(Impl& server, Socket socket, std::string peer)
      : server_(server), executor_(socket.get_executor()), socket_(std::move(socket)), timer_(executor_),
        peer_(std::move(peer)) {}

  void start() {
    ErrorCode ec;
    socket_.set_option(tcp::no_delay(true), ec);
    socket_.native_non_blocking(true, ec);  // for sendfile(); Asio's own operations do not mind
    timer_.expires_at(Clock::time_point::max());
    awaitRequest();
  }

  const std::string& peer() const { return peer_; }
  // Since when it has waited for a request's first byte; max while it
  // receives, is handled or answers. Read from any thread.
  Clock::time_point waitingSince() const {
    return Clock::time_point(Clock::duration(waitingSince_.load(std::memory_order_relaxed)));
  }

  // From any thread: no handler starts for this connection any more, and the
  // socket is closed on its I/O thread.
  void abandon() {
    abandoned_.store(true, std::memory_order_release);
    asio::post(executor_, [self = shared_from_this()] { self->close(); });
  }

 private:
  enum class Phase { idle, receiving, handling, writing, lingering, closed };

  void awaitRequest() {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(maxHeaderBytes));
    // The largest limit until the header tells which one applies (chooseBody);
    // the parser stops after the header so that the choice comes in time.
    parser_->body_limit(maxSpooledBodyBytes);
    parser_->eager(false);
    bodyChosen_ = false;
    spooled_ = false;
    uploadProgress_ = 0;
    continueSent_ = false;
    if (buffer_.size() > 0) {  // a pipelined request already arrived
      phase_ = Phase::receiving;
      setDeadline(server_.options.receiveTimeout);
      parse();
    } else {
      phase_ = Phase::idle;
      setDeadline(sentAny_ ? server_.options.idleTimeout : server_.options.firstByteTimeout);
      if (buffer_.capacity() > headerReadBytes) buffer_.shrink_to_fit();
      setWaiting(true);
      read();
    }
  }

  void read() {
    const bool body = phase_ == Phase::receiving && parser_->is_header_done();
    socket_.async_read_some(buffer_.prepare(body ? bodyReadBytes : headerReadBytes),
                            [self = shared_from_this()](const ErrorCode& ec, std::size_t n) { self->onRead(ec, n); });
  }

  void onRead(const ErrorCode& ec, std::size_t n) {
    if (phase_ == Phase::closed) return;
    if (ec) return close();
    buffer_.commit(n);
    if (phase_ == Phase::lingering) {
      buffer_.clear();
      return read();
    }
    if (phase_ == Phase::idle) {
      phase_ = Phase::receiving;
      sentAny_ = true;
      setWaiting(false);
      setDeadline(server_.options.receiveTimeout);
    } else if (spooled_ && (uploadProgress_ += n) >= uploadProgressBytes) {
      uploadProgress_ = 0;
      setDeadline(server_.options.receiveTimeout);
    }
    parse();
  }

  void parse() {
    boost::beast::error_code ec;
    for (;;) {
      if (!bodyChosen_ && parser_->is_header_done() && !parser_->is_done() && !chooseBody(ec)) break;
      if (buffer_.size() == 0 || parser_->is_done()) break;
      const std::size_t used = parser_->put(buffer_.data(), ec);
      buffer_.consume(used);
      if (ec == http::error::need_more) {
        ec = {};
        break;
      }
      if (ec || used == 0) break;
    }
    if (ec) return refuse(ec);
    if (parser_->is_done()) return dispatch();
    if (parser_->is_header_done() && !continueSent_ && expectsContinue(parser_->get())) return sendContinue();
    read();
  }

  void sendContinue() {
    continueSent_ = true;
    asio::async_write(socket_, asio::buffer(continueResponse.data(), continueResponse.size()),
                      [self = shared_from_this()](const ErrorCode& ec, std::size_t) {
                        if (self->phase_ == Phase::closed) return;
                        if (ec) return self->close();
                        self->read();
                      });
  }

  // Settles the body's limit and home from the header: a request the options
  // name goes to a temporary file and may be large, any other stays in memory.
  // False, with `ec` set, when the declared length is over the limit or no
  // file can be made.
  bool chooseBody(boost::beast::error_code& ec) {
    bodyChosen_ = true;
    spooled_ = spools();
    const Options& o = server_.options;
    const std::uint64_t limit = bodyLimit();
    if (parser_->content_length().value_or(0) > limit) {
      ec = http::error::body_limit;
      return false;
    }
    parser_->body_limit(limit);
    if (spooled_) {
      std::optional<TempFile> file = TempFile::create(o.spoolBase);
      if (!file) {
        parser_->get().body().failure = {errno, std::generic_category()};
        ec = boost::system::errc::make_error_code(boost::system::errc::io_error);
        return false;
      }
      parser_->get().body().file = std::make_shared<TempFile>(std::move(*file));
    }
    parser_->eager(true);
    return true;
  }

  // Whether the options name the request whose start line has been parsed.
  bool spools() const {
    const auto& head = parser_->get();
    const std::string_view target(head.target().data(), head.target().size());
    const std::string_view method(head.method_string().data(), head.method_string().size());
    const auto authorization = head[boost::beast::http::field::authorization];
    return server_.options.spoolsBody &&
           server_.options.spoolsBody(method, target.substr(0, target.find('?')),
                                      std::string_view(authorization.data(), authorization.size()));
  }

  std::uint64_t bodyLimit() const { return spooled_ ? maxSpooledBodyBytes : maxBodyBytes; }

  void refuse(const boost::beast::error_code& ec) {
    close_ = true;
    if (ec == http::error::header_limit) {
      if (server_.firstBreach(Breach::headers)) {
        AppLog::warn("http", "request headers from " + peer_ + " over " + std::to_string(maxHeaderBytes) +
                                 " bytes: answered 400 and closed" + onlyOnce);
      }
      return respond(HttpResponse::error(400, "headers_too_large",
                                         TF("请求头超过了 %d KB 的上限", static_cast<int>(maxHeaderBytes / 1024))));
    }
    if (ec == http::error::body_limit) {
      if (!bodyChosen_) spooled_ = spools();  // refused by the parser from a length past every limit
      if (server_.firstBreach(Breach::body)) {
        AppLog::warn("http", "request body from " + peer_ + " over " + std::to_string(bodyLimit()) +
                                 " bytes: answered 413 and closed" + onlyOnce);
      }
      return respond(HttpResponse::error(413, "body_too_large",
                                         TF("请求体超过了 %d MB 的上限", static_cast<int>(bodyLimit() >> 20))));
    }
    if (const std::error_code failure = parser_->get().body().failure) {
      if (server_.firstBreach(Breach::spool)) {
        AppLog::error("http", "cannot store the request body from " + peer_ + " under " + server_.options.spoolBase +
                                  " (" + failure.message() + "): answered 500 and closed" + onlyOnce);
      }
      return respond(HttpResponse::error(500, "internal_error",
                                         TF("服务内部出错:%s", TF("请求体无法暂存:%s", failure.message()))));
    }
    if (server_.firstBreach(Breach::malformed)) {
      AppLog::warn("http", "unparsable request from " + peer_ + " (" + ec.message() +
                               "): answered 400 and closed" + onlyOnce);
    }
    respond(HttpResponse::error(400, "bad_request", T("无法解析这个 HTTP 请求")));
  }

  void dispatch() {
    auto message = parser_->release();
    close_ = !message.keep_alive();
    parser_.reset();
    phase_ = Phase::handling;
    deadline_ = Clock::time_point::max();
    std::shared_ptr<TempFile> spool = std::move(message.body().file);
    HttpRequest request = toRequest(std::move(message), peer_);
    if (spool) request.bodyFile = spool->path();
    if (std::optional<HttpResponse> answer = server_.runQuick(request)) return respond(std::move(*answer));
    server_.workers.post([self = shared_from_this(), request = std::move(request), spool = std::move(spool)]() mutable {
      if (self->abandoned_.load(std::memory_order_acquire)) return;
      HttpResponse response = self->server_.runHandler(request);
      spool.reset();  // deleted as soon as the handler is done with it
      asio::post(self->executor_, [self, response = std::move(response)]() mutable {
        self->respond(std::move(response));
      });
    });
  }

  void respond(HttpResponse response) {
    if (phase_ == Phase::closed) return;
    phase_ = Phase::writing;
    setDeadline(server_.options.idleTimeout);
    if (response.bodyFile && response.bodyFile->isOpen()) {
      file_ = std::move(response.bodyFile);
      head_ = serializeResponseHead(response, file_->size(), close_);
      headSent_ = 0;
      fileSent_ = 0;
      return sendHeadAndFile();
    }
    head_ = serializeResponseHead(response, response.body.size(), close_);
    body_ = std::move(response.body);
    const std::array<asio::const_buffer, 2> parts{asio::buffer(head_), asio::buffer(body_)};
    asio::async_write(socket_, parts, [self = shared_from_this()](const ErrorCode& ec, std::size_t) { self->onWritten(ec); });
  }

  // Non-blocking send() and sendfile() until done or the socket is full, then
  // again once it can take more. The head goes with MSG_MORE so that it shares
  // a segment with the start of the file; not before an empty file, as nothing
  // would follow to push it out and the kernel would hold it for 200 ms.
  void sendHeadAndFile() {
    const int socket = socket_.native_handle();
    const int more = file_->size() > 0 ? MSG_MORE : 0;
    while (headSent_ < head_.size() || fileSent_ < file_->size()) {
      ssize_t n = 0;
      if (headSent_ < head_.size()) {
        n = ::send(socket, head_.data() + headSent_, head_.size() - headSent_, more | MSG_NOSIGNAL);
        if (n > 0) headSent_ += static_cast<std::size_t>(n);
      } else {
        auto offset = static_cast<off_t>(fileSent_);
        n = ::sendfile(socket, file_->fd(), &offset, std::min<std::uint64_t>(file_->size() - fileSent_, 1u << 30));
        if (n > 0) fileSent_ += static_cast<std::uint64_t>(n);
      }
      if (n > 0 || (n < 0 && errno == EINTR)) continue;
      // A file that shrank under us cannot fill the promised length: give up the connection.
      if (n == 0 || errno != EAGAIN) return close();
      socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const ErrorCode& ec) {
        if (self->phase_ == Phase::closed) return;
        if (ec) return self->close();
        self->sendHeadAndFile();
      });
      return;
    }
    onWritten({});
  }

  void onWritten(const ErrorCode& ec) {
    if (phase_ == Phase::closed) return;
    if (ec) return close();
    head_.clear();
    Bytes().swap(body_);
    file_.reset();
    if (close_) return linger();
    awaitRequest();
  }

  void linger() {
    phase_ = Phase::lingering;
    ErrorCode ignored;
    socket_.shutdown(Socket::shutdown_send, ignored);
    buffer_.clear();
    setDeadline(std::min<Clock::duration>(lingerTime, server_.options.receiveTimeout));
    read();
  }

  // The timer keeps one wait pending and moves it only to bring it forward:
  // pushing a deadline later costs nothing, the wait simply goes on when it fires early.
  void setDeadline(Clock::duration after) {
    deadline_ = Clock::now() + after;
    if (deadline_ < timer_.expiry()) {
      timer_.expires_at(deadline_);
      timer_.async_wait([self = shared_from_this()](const ErrorCode& ec) {
        if (!ec) self->onTimer();
      });
    }
  }

  void onTimer() {
    if (phase_ == Phase::closed) return;
    if (Clock::now() < deadline_) {
      timer_.expires_at(deadline_);
      timer_.async_wait([self = shared_from_this()](const ErrorCode& ec) {
        if (!ec) self->onTimer();
      });
      return;
    }
    noteTimeout();
    close();
  }

  void noteTimeout() {
    const auto ms = [](std::chrono::milliseconds d) { return std::to_string(d.count()) + " ms"; };
    const Options& o = server_.options;
    if (phase_ == Phase::idle && !sentAny_) {
      if (server_.firstBreach(Breach::firstByte)) {
        AppLog::info("http", "connection from " + peer_ + " sent nothing within " + ms(o.firstByteTimeout) +
                                 ": closed" + onlyOnce);
      }
    } else if (phase_ == Phase::idle && server_.firstBreach(Breach::idleTimeout)) {
      AppLog::info("http", "keep-alive connection from " + peer_ + " idle for " + ms(o.idleTimeout) +
                               ": closed" + onlyOnce);
    } else if (phase_ == Phase::receiving && server_.firstBreach(Breach::receiveTimeout)) {
      AppLog::warn("http", "request from " + peer_ + " not complete within " + ms(o.receiveTimeout) +
                               " of its first byte: closed" + onlyOnce);
    } else if (phase_ == Phase::writing && server_.firstBreach(Breach::sendTimeout)) {
      AppLog::warn("http", "response to " + peer_ + " made no progress for " + ms(o.idleTimeout) +
                               ": closed" + onlyOnce);
    }
  }

  void setWaiting(bool waiting) {
    const Clock::time_point since = waiting ? Clock::now() : Clock::time_point::max();
    waitingSince_.store(since.time_since_epoch().count(), std::memory_order_relaxed);
  }

  void close() {
    if (phase_ == Phase::closed) return;
    phase_ = Phase::closed;
    abandoned_.store(true, std::memory_order_release);
    ErrorCode ignored;
    socket_.close(ignored);
    timer_.cancel();
    parser_.reset();  // with it a half-received body's temporary file
    server_.forget(this);
  }

  Impl& server_;
  const Executor executor_;
  Socket socket_;
  Timer timer_;
  const std::string peer_;
  boost::beast::flat_buffer buffer_;
  std::optional<RequestParser> parser_;
  Phase phase_ = Phase::idle;
  Clock::time_point deadline_ = Clock::time_point::max();
  bool sentAny_ = false;       // the client has sent a byte on this connection
  bool bodyChosen_ = false;    // chooseBody() ran for the request being received
  bool spooled_ = false;       // its body goes to a temporary file
  std::uint64_t uploadProgress_ = 0;  // bytes of it since its receive clock last restarted
  bool close_ = false;         // the response in hand ends the connection
  bool continueSent_ = false;  // "100 Continue" already went out for this request
  std::string head_;           // the response being written
  Bytes body_;
  std::shared_ptr<const OpenFile> file_;  // or its body as a file
  std::size_t headSent_ = 0;
  std::uint64_t fileSent_ = 0;
  std::atomic<bool> abandoned_{false};
  std::atomic<Clock::rep> waitingSince_{Clock::time_point::max().time_since_epoch().count()};
};

void HttpServer::Impl::accept() {
  asio::io_context& home = *ios[nextContext];
  nextContext = (nextContext + 1) % ios.size();
  acceptor.async_accept(home.get_executor(), [this](const ErrorCode& ec, Socket socket) {
    onAccept(ec, std::move(socket));
  });
}

void HttpServer::Impl::onAccept(const ErrorCode& ec, Socket socket) {
  if (ec == asio::error::operation_aborted || !acceptor.is_open()) return;
  if (ec) {
    // Out of descriptors or memory: the connection waits in the backlog, so
    // retrying at once would spin. Anything else concerned that one client.
    const bool starved = ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
                         ec == asio::error::no_memory || ec.value() == ENFILE;
    if (!starved) return accept();
    if (firstBreach(Breach::accept)) {
      AppLog::error("http", "accepting connections failed (" + ec.message() + "); retrying every 100 ms" + onlyOnce);
    }
    acceptRetry.expires_after(std::chrono::milliseconds(100));
    acceptRetry.async_wait([this](const ErrorCode& e) {
      if (!e) accept();
    });
    return;
  }
  const Executor home = socket.get_executor();
  std::string peer = peerAddress(socket);
  auto session = std::make_shared<Session>(*this, std::move(socket), peer);
  bool admitted = false;
  std::shared_ptr<Session> evicted;
  {
    std::lock_guard guard(lock);
    if (running && sessions.size() >= maxConnections) evicted = takeLongestWaitingLocked();
    admitted = running && sessions.size() < maxConnections;
    if (admitted) sessions.emplace(session.get(), session);
  }
  if (evicted) {
    evicted->abandon();
    if (firstBreach(Breach::evicted)) {
      AppLog::warn("http", "at the cap of " + std::to_string(maxConnections) + " open connections: closed the one from " +
                               evicted->peer() + " that had waited longest for a request, to make room" + onlyOnce);
    }
  }
  if (admitted) {
    asio::post(home, [session] { session->start(); });
  } else if (running && firstBreach(Breach::connections)) {
    AppLog::warn("http", "more than " + std::to_string(maxConnections) + " busy connections: closed the one from " +
                             peer + " at once" + onlyOnce);
  }
  accept();
}

std::shared_ptr<HttpServer::Impl::Session> HttpServer::Impl::takeLongestWaitingLocked() {
  std::shared_ptr<Session> oldest;
  Clock::time_point oldestSince = Clock::time_point::max();
  for (const auto& [raw, weak] : sessions) {
    std::shared_ptr<Session> session = weak.lock();
    if (!session) continue;
    const Clock::time_point since = session->waitingSince();
    if (since < oldestSince) {
      oldest = std::move(session);
      oldestSince = since;
    }
  }
  if (oldest) sessions.erase(oldest.get());
  return oldest;
}

HttpServer::HttpServer(std::string bindAddress, std::int64_t port, Handler handler)
    : HttpServer(std::move(bindAddress), port, std::move(handler), Options{}) {}

HttpServer::HttpServer(std::string bindAddress, std::int64_t port, Handler handler, Options options)
    : impl_(std::make_unique<Impl>(std::move(bindAddress), port, std::move(handler), options)) {}

HttpServer::~HttpServer() { stop(); }

void HttpServer::setQuickHandler(QuickHandler quick) { impl_->quick = std::move(quick); }

void HttpServer::start() {
  Impl& s = *impl_;
  std::lock_guard life(s.lifecycle);
  if (isRunning()) return;
  if (s.port < 0 || s.port > 65535) throw portInUse(s.port);
  ErrorCode ec;
  asio::ip::address address = asio::ip::make_address(s.bindAddress, ec);
  if (ec) {
    tcp::resolver resolver(*s.ios.front());
    const auto found = resolver.resolve(s.bindAddress, "", tcp::resolver::passive, ec);
    if (ec || found.empty()) throw addressNotHere(s.bindAddress);
    address = found.begin()->endpoint().address();
  }
  const tcp::endpoint endpoint(address, static_cast<std::uint16_t>(s.port));
  // The I/O threads are not running yet, so the acceptor may be used from here.
  s.acceptor.open(endpoint.protocol(), ec);
  if (!ec) s.acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) s.acceptor.bind(endpoint, ec);
  if (!ec) s.acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    ErrorCode ignored;
    s.acceptor.close(ignored);
    if (ec.value() == EADDRNOTAVAIL) throw addressNotHere(s.bindAddress);
    throw portInUse(s.port);
  }
  raiseDescriptorLimit();
  {
    std::lock_guard guard(s.lock);
    s.boundPort = s.acceptor.local_endpoint(ec).port();
    s.running = true;
  }
  for (const auto& io : s.ios) {
    io->restart();
    s.work.push_back(asio::make_work_guard(*io));
  }
  asio::post(s.acceptor.get_executor(), [&s] { s.accept(); });
  for (const auto& io : s.ios) {
    s.ioThreads.emplace_back([&io = *io] {
      pthread_setname_np(pthread_self(), "KELVO http io");
      io.run();
    });
  }
  AppLog::info("http", "service started on " + s.endpoint());
}

void HttpServer::stop() {
  Impl& s = *impl_;
  std::lock_guard life(s.lifecycle);
  std::vector<std::shared_ptr<Impl::Session>> open;
  {
    std::lock_guard guard(s.lock);
    if (!s.running) return;
    s.running = false;
    for (const auto& [raw, weak] : s.sessions) {
      if (auto session = weak.lock()) open.push_back(std::move(session));
    }
  }
  asio::post(s.acceptor.get_executor(), [&s] {
    ErrorCode ignored;
    s.acceptor.close(ignored);
    s.acceptRetry.cancel();
  });
  for (const auto& session : open) session->abandon();
  open.clear();
  // With the listener and every socket closed, run() returns once the
  // aborted operations have been delivered.
  s.work.clear();
  for (auto& t : s.ioThreads) t.join();
  s.ioThreads.clear();
}

bool HttpServer::isRunning() const {
  std::lock_guard guard(impl_->lock);
  return impl_->running;
}

std::string HttpServer::endpoint() const { return impl_->endpoint(); }

std::int64_t HttpServer::boundPort() const {
  std::lock_guard guard(impl_->lock);
  return impl_->boundPort;
}

std::vector<std::string> reachableUrls(const std::string& bindAddress, std::int64_t port) {
  const std::string suffix = ":" + std::to_string(port);
  ErrorCode ec;
  const asio::ip::address bound = asio::ip::make_address(bindAddress, ec);
  if (!bindAddress.empty() && (ec || !bound.is_unspecified())) return {"http://" + urlHost(bindAddress) + suffix};

  // 0: "192.168.", 1: the other private ranges, 2: everything else.
  const auto rank = [](const std::string& a) {
    if (a.starts_with("192.168.")) return 0;
    if (a.starts_with("10.")) return 1;
    if (a.starts_with("172.")) {
      const int second = std::atoi(a.c_str() + 4);
      if (second >= 16 && second <= 31) return 1;
    }
    return 2;
  };
  std::vector<std::pair<int, std::string>> found;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    for (const ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
      if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
      char text[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr, text, sizeof text);
      const std::string a = text;
      if (a.starts_with("127.") || a.starts_with("169.254.")) continue;
      if (std::none_of(found.begin(), found.end(), [&](const auto& f) { return f.second == a; })) {
        found.emplace_back(rank(a), a);
      }
    }
    freeifaddrs(list);
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
  std::vector<std::string> urls;
  for (const auto& f : found) urls.push_back("http://" + f.second + suffix);
  urls.push_back("http://127.0.0.1" + suffix);
  return urls;
}

}  // namespace kelvo
