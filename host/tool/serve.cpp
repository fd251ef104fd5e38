// fontrix serve: HTTP over Boost.Beast on a few network threads; every call into the host and
// the module runs on the host's own thread (the one that called Serve), one at a time, as the
// tool makes them, between the idle ticks that let the module's background work go on.
#include "host/tool/serve.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/font_names.h"
#include "host/image.h"
#include "host/specimen.h"
#include "host/tool/json.h"
#include "host/tool/queries.h"
#include "sdk/fontrix_suites.h"
#include "sdk/qv_font_suites.h"
#include "sdk/qv_host_suites.h"

extern char** environ;

namespace fontrix::host {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

// Bounds on what one request may cost. A screenshot of a large screen is a few megabytes and
// pixels; the limits leave room for that and refuse more before decoding it.
constexpr size_t kLargestUpload = size_t{16} << 20;
constexpr uint64_t kLargestPicture = 40'000'000;
constexpr size_t kLargestHeader = 16 << 10;
constexpr auto kReadTime = std::chrono::seconds(20);             // a request's header and body
constexpr auto kWriteTime = std::chrono::seconds(30);            // an answer
constexpr auto kWaitTime = std::chrono::seconds(20);             // a request's wait for the host's thread
constexpr size_t kMostWaiting = 256;                             // requests waiting for the host's thread
constexpr size_t kSpecimenCacheBytes = size_t{32} << 20;         // drawn specimens kept as PNG
constexpr size_t kLongestSpecimenText = 200;                     // characters
constexpr double kSmallestSpecimen = 8, kLargestSpecimen = 200;  // pixels to the em
constexpr size_t kLargestPage = 200;                             // fonts of one answer of the API
constexpr int kNetworkThreads = 2;

// The page's files: a fixed table, so no path ever comes from a request.
struct PageFile {
  const char* route;
  const char* file;
  const char* type;
};
constexpr PageFile kPageFiles[] = {{"/", "index.html", "text/html; charset=utf-8"},
                                   {"/index.html", "index.html", "text/html; charset=utf-8"},
                                   {"/app.js", "app.js", "text/javascript; charset=utf-8"},
                                   {"/style.css", "style.css", "text/css; charset=utf-8"}};

/// An answer before it becomes an HTTP response.
struct Reply {
  unsigned status = 200;
  std::string type = "application/json";
  std::string body;
  bool keep = false;  // may be cached by the browser
};

Reply JsonReply(std::string body) { return {200, "application/json", std::move(body), false}; }

Reply ErrorReply(unsigned status, const std::string& message) {
  return {status, "application/json", "{\"error\": " + JsonString(message) + "}\n", false};
}

// ---- the query string

std::string PercentDecoded(const std::string& text) {
  std::string out;
  auto hex = [](char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += char(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

/// The parameters of a request's query, each name with its values in order.
class Params {
 public:
  explicit Params(const std::string& query) {
    std::stringstream in(query);
    std::string pair;
    while (std::getline(in, pair, '&')) {
      if (pair.empty()) continue;
      const size_t equals = pair.find('=');
      values_[PercentDecoded(pair.substr(0, equals))].push_back(
          equals == std::string::npos ? "" : PercentDecoded(pair.substr(equals + 1)));
    }
  }
  std::string Get(const std::string& name, const std::string& otherwise = "") const {
    const auto found = values_.find(name);
    return found == values_.end() || found->second.empty() ? otherwise : found->second.back();
  }
  /// Every value of `name`, each also split at commas.
  std::vector<std::string> All(const std::string& name) const {
    std::vector<std::string> out;
    const auto found = values_.find(name);
    if (found == values_.end()) return out;
    for (const std::string& value : found->second) {
      std::stringstream in(value);
      std::string item;
      while (std::getline(in, item, ','))
        if (!item.empty()) out.push_back(item);
    }
    return out;
  }
  bool Flag(const std::string& name) const {
    const std::string value = Get(name, "0");
    return value == "1" || value == "true" || value == "on" || value == "yes";
  }
  /// A whole number from `lowest` to `highest`, `otherwise` when absent; a UsageError else.
  size_t Number(const std::string& name, size_t otherwise, size_t lowest, size_t highest) const {
    const std::string value = Get(name);
    if (value.empty()) return otherwise;
    if (value.size() > 9 || value.find_first_not_of("0123456789") != std::string::npos || std::stoul(value) < lowest ||
        std::stoul(value) > highest)
      throw UsageError(name + " needs a whole number from " + std::to_string(lowest) + " to " +
                       std::to_string(highest) + ", not '" + value + "'");
    return std::stoul(value);
  }

 private:
  std::map<std::string, std::vector<std::string>> values_;
};

uint32_t ClassBits(const std::vector<std::string>& names) {
  uint32_t bits = 0;
  for (const std::string& name : names) bits |= 1u << ClassIndex(name);
  return bits;
}

size_t CodePoints(const std::string& text) {
  size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

// ---- the host's thread

/// Work for the host's thread, run in the order it came.
class HostJobs {
 public:
  /// False when too many wait already.
  bool Push(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (jobs_.size() >= kMostWaiting) return false;
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
    return true;
  }
  /// Runs the jobs waiting, after waiting at most `wait` for one.
  void RunFor(std::chrono::milliseconds wait) {
    std::deque<std::function<void()>> jobs;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ready_.wait_for(lock, wait, [&] { return !jobs_.empty(); });
      jobs.swap(jobs_);
    }
    for (auto& job : jobs) job();
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> jobs_;
};

/// Drawn specimens as PNG, by font, size and text; the least recently used go first.
class SpecimenCache {
 public:
  std::shared_ptr<const std::string> Find(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = index_.find(key);
    if (found == index_.end()) return nullptr;
    order_.splice(order_.begin(), order_, found->second);
    return found->second->second;
  }
  void Keep(const std::string& key, std::shared_ptr<const std::string> png) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index_.count(key) || png->size() > kSpecimenCacheBytes) return;
    order_.emplace_front(key, png);
    index_[key] = order_.begin();
    bytes_ += png->size();
    while (bytes_ > kSpecimenCacheBytes) {
      bytes_ -= order_.back().second->size();
      index_.erase(order_.back().first);
      order_.pop_back();
    }
  }

 private:
  using Entry = std::pair<std::string, std::shared_ptr<const std::string>>;
  std::mutex mutex_;
  std::list<Entry> order_;
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
  size_t bytes_ = 0;
};

/// What the module's progress suite says, kept by the host's thread for the network threads.
class ProgressView {
 public:
  void Update(const FontrixProgressSuite& progress) {
    uint64_t done = std::numeric_limits<uint64_t>::max(), total = 0;
    bool idle = true;
    std::string services, messages;
    for (int32_t service = 0; service < kFontrixServiceCount; ++service) {
      FontrixServiceProgress p{};
      if (progress.GetServiceProgress(service, &p)) continue;
      char line[256];
      std::snprintf(line, sizeof line,
                    "%s{\"service\": \"%s\", \"enabled\": %s, \"fonts\": %u, \"done\": %u, \"idle\": %s}",
                    services.empty() ? "" : ", ", ServiceName(service), p.enabled ? "true" : "false", p.fontsTotal,
                    p.idle ? p.fontsTotal : p.fontsDone, p.idle ? "true" : "false");
      services += line;
      if (!p.enabled) continue;
      idle = idle && p.idle;
      total = std::max<uint64_t>(total, p.fontsTotal);
      done = std::min<uint64_t>(done, p.idle ? p.fontsTotal : p.fontsDone);
      int32_t severity = kFontrixReportNothing;
      char text[1024] = "";
      if (!progress.GetServiceReport(service, &severity, text, sizeof text) && severity != kFontrixReportNothing)
        messages += (messages.empty() ? "" : ", ") + JsonString(text);
    }
    done = std::min(done, total);
    std::lock_guard<std::mutex> lock(mutex_);
    ready_ = idle;
    done_ = done;
    total_ = total;
    json_ = std::string("{\"ready\": ") + (idle ? "true" : "false") + ", \"done\": " + std::to_string(done) +
            ", \"total\": " + std::to_string(total) + ", \"services\": [" + services + "], \"messages\": [" + messages +
            "]}\n";
  }
  bool Ready() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ready_;
  }
  std::string Json() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return json_;
  }
  /// The answer to a question the module cannot answer yet.
  Reply NotReady() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Reply reply = ErrorReply(503, "Fontrix is still taking in the installed fonts (" + std::to_string(done_) + " of " +
                                      std::to_string(total_) + "); it answers once they are all in");
    reply.body.insert(reply.body.size() - 2, ", \"progress\": " + json_.substr(0, json_.size() - 1));
    return reply;
  }

 private:
  mutable std::mutex mutex_;
  bool ready_ = false;
  uint64_t done_ = 0, total_ = 0;
  std::string json_ = "{\"ready\": false, \"done\": 0, \"total\": 0, \"services\": [], \"messages\": []}\n";
};

// ---- the answers, on the host's thread

std::string RowsPage(const std::vector<OutputRow>& rows, size_t offset, size_t limit, std::vector<OutputRow>& page) {
  for (size_t i = offset; i < rows.size() && page.size() < limit; ++i) page.push_back(rows[i]);
  return "\"total\": " + std::to_string(rows.size()) + ", \"offset\": " + std::to_string(offset);
}

Reply FontsAnswer(Host& host, const Params& params) {
  const size_t limit = params.Number("limit", 20, 1, kLargestPage);
  const std::string pattern = params.Get("q");
  std::vector<const HostFont*> fonts = ModuleFonts(host);
  if (!pattern.empty()) {
    const FontFilter filter(pattern);
    fonts.erase(std::remove_if(fonts.begin(), fonts.end(), [&](const HostFont* f) { return !filter(*f); }),
                fonts.end());
  }
  SortByFamily(fonts);
  std::vector<OutputRow> rows;
  for (const HostFont* f : fonts) {
    if (rows.size() >= limit) break;
    rows.push_back(RowOf(*f));
  }
  return JsonReply(JsonAnswer("\"total\": " + std::to_string(fonts.size()), "fonts", rows));
}

Reply ClassesAnswer(Host& host, const Params& params) {
  const uint32_t all = ClassBits(params.All("class")), none = ClassBits(params.All("not")),
                 any = ClassBits(params.All("any"));
  const size_t offset = params.Number("offset", 0, 0, 1000000), limit = params.Number("limit", 24, 1, kLargestPage);
  const std::vector<OutputRow> rows = ClassRows(host, all, none, any, SIZE_MAX);
  std::vector<OutputRow> page;
  const std::string head = RowsPage(rows, offset, limit, page);
  return JsonReply(JsonAnswer(head, "fonts", page));
}

Reply SimilarAnswerReply(Host& host, const Params& params) {
  SimilarRequest request;
  request.name = params.Get("name");
  if (request.name.empty()) throw UsageError("name: the font to find alternatives to is needed");
  request.style = params.Get("style");
  request.other_families = params.Flag("other_families");
  request.classes = ClassBits(params.All("class"));
  request.limit = params.Number("limit", 80, 1, 80);
  const SimilarAnswer answer = FindSimilar(host, request);
  std::string notes;
  for (const std::string& note : answer.notes) notes += (notes.empty() ? "" : ", ") + JsonString(note);
  return JsonReply(JsonAnswer(answer.JsonHead() + ", \"notes\": [" + notes + "], \"message\": " +
                                  JsonString(answer.EmptyReason(request.other_families, request.classes != 0)),
                              "results", answer.rows));
}

Reply RecognizeAnswerReply(Host& host, const Params& params, const std::string& body) {
  const size_t limit = params.Number("limit", 10, 1, 40);
  if (body.empty()) throw Failure("no picture came: send a PNG or JPEG picture of text");
  std::unique_ptr<ImageRaster> image;
  try {
    image = LoadImageRasterFromMemory(body.data(), body.size(), "you sent", kLargestPicture);
  } catch (const std::runtime_error& e) {
    throw Failure(e.what());
  }
  const RecognizeAnswer answer = RecognizeRaster(host, *image, limit);
  std::string lines;
  for (const FontrixTextLine& l : TextLines(host, *image))
    lines += (lines.empty() ? "" : ", ") + std::string("{\"left\": ") + std::to_string(l.left) +
             ", \"top\": " + std::to_string(l.top) + ", \"right\": " + std::to_string(l.right) +
             ", \"bottom\": " + std::to_string(l.bottom) + "}";
  std::string head = "\"image\": \"upload\", \"width\": " + std::to_string(image->width()) +
                     ", \"height\": " + std::to_string(image->height()) + ", \"lines\": [" + lines + "]";
  if (answer.sure) head += std::string(", \"sure\": ") + (*answer.sure ? "true" : "false");
  return JsonReply(JsonAnswer(head, "results", answer.rows));
}

Reply SpecimenAnswer(Host& host, const std::string& name, const std::string& text, double size) {
  HeldSuite<QVFontSuite> fonts(host, kQVFontSuite, kQVFontSuiteVersion);
  HeldSuite<QVFontGlueSuite> glue(host, kQVFontGlueSuite, kQVFontGlueSuiteVersion);
  QVFontHandle font = nullptr;
  if (fonts->FindFontByName(name.c_str(), &font) || !font) return ErrorReply(404, "no installed font is named " + name);
  try {
    return {200, "image/png", PngBytes(DrawSpecimen(*glue, font, text, size).Pixels()), true};
  } catch (const std::runtime_error& e) {
    throw Failure("cannot draw the specimen of " + name + ": " + e.what());
  }
}

// ---- the server

class Server {
 public:
  Server(Host& host, const ServeOptions& options, int port, std::map<std::string, Reply> pages)
      : host_(host), options_(options), port_(port), pages_(std::move(pages)) {}

  HostJobs& Jobs() { return jobs_; }
  ProgressView& Progress() { return progress_; }

  /// The refusal of a request that does not come through this server's own address: a Host
  /// header naming another (a page of another site that a DNS name now sends here), or an Origin
  /// of another site.
  std::optional<Reply> Refusal(const http::request_header<>& header) const {
    const std::string host(header[http::field::host]);
    if (!HostAllowed(host))
      return ErrorReply(403, "this server answers requests for its own address only, not for '" + host + "'");
    const auto origin = header.find(http::field::origin);
    if (origin != header.end() && std::string(origin->value()) != "http://" + host)
      return ErrorReply(403, "requests from other sites are refused");
    return std::nullopt;
  }

  /// Answers a request read whole; `done` gets the answer, on whichever thread made it.
  void Answer(const http::request<http::string_body>& request, std::function<void(Reply)> done) {
    const std::string target(request.target());
    const size_t mark = target.find('?');
    const std::string path = target.substr(0, mark);
    const Params params(mark == std::string::npos ? "" : target.substr(mark + 1));
    const bool post = request.method() == http::verb::post;
    if (request.method() != http::verb::get && !post) return done(ErrorReply(405, "only GET and POST are answered"));
    if (const auto page = pages_.find(path); page != pages_.end()) {
      if (post) return done(ErrorReply(405, "the page's files are read with GET"));
      return done(page->second);
    }
    if (path == "/api/progress") return done(JsonReply(progress_.Json()));
    using Handler = std::function<Reply(Host&)>;
    Handler handler;
    bool needs_module = true;
    if (path == "/api/recognize") {
      if (!post) return done(ErrorReply(405, "send the picture with POST"));
      std::string body = request.body();
      handler = [params, body = std::move(body)](Host& host) { return RecognizeAnswerReply(host, params, body); };
    } else if (post) {
      return done(ErrorReply(405, "only /api/recognize takes POST"));
    } else if (path == "/api/fonts") {
      handler = [params](Host& host) { return FontsAnswer(host, params); };
    } else if (path == "/api/classes") {
      handler = [params](Host& host) { return ClassesAnswer(host, params); };
    } else if (path == "/api/similar") {
      handler = [params](Host& host) { return SimilarAnswerReply(host, params); };
    } else if (path == "/api/specimen") {
      // The host draws specimens without the module's caches: they come before it is ready.
      needs_module = false;
      std::string name = params.Get("name"), text = params.Get("text", "Handgloves");
      double size = 0;
      try {
        size = double(params.Number("size", 48, size_t(kSmallestSpecimen), size_t(kLargestSpecimen)));
        if (name.empty()) throw UsageError("name: the font to draw is needed");
        if (CodePoints(text) > kLongestSpecimenText)
          throw UsageError("text: a specimen draws at most " + std::to_string(kLongestSpecimenText) + " characters");
      } catch (const UsageError& e) {
        return done(ErrorReply(400, e.what()));
      }
      const std::string key = name + '\0' + std::to_string(int(size)) + '\0' + text;
      if (auto png = specimens_.Find(key)) return done({200, "image/png", *png, true});
      handler = [this, key, name, text, size](Host& host) {
        Reply reply = SpecimenAnswer(host, name, text, size);
        if (reply.status == 200) specimens_.Keep(key, std::make_shared<const std::string>(reply.body));
        return reply;
      };
    } else {
      return done(ErrorReply(404, "there is nothing at " + path));
    }
    if (needs_module && !progress_.Ready()) return done(progress_.NotReady());
    const Clock::time_point deadline = Clock::now() + kWaitTime;
    auto job = [this, handler, done, deadline] {
      if (Clock::now() > deadline)
        return done(ErrorReply(503, "the server is busy: the request waited too long; try again"));
      done(Run(handler));
    };
    if (!jobs_.Push(job)) done(ErrorReply(503, "the server is busy: too many requests are waiting; try again"));
  }

 private:
  // Every failure becomes a sentence the page shows: a bad request, a question that cannot be
  // answered, or the server's own trouble, never a stack.
  Reply Run(const std::function<Reply(Host&)>& handler) {
    try {
      return handler(host_);
    } catch (const UsageError& e) {
      return ErrorReply(400, e.what());
    } catch (const Failure& e) {
      return ErrorReply(422, e.what());
    } catch (const std::bad_alloc&) {
      return ErrorReply(503, "the server ran out of memory answering this request");
    } catch (const std::exception& e) {
      return ErrorReply(500, std::string("the server could not answer: ") + e.what());
    } catch (...) {
      return ErrorReply(500, "the server could not answer: an unexpected error");
    }
  }

  // A Host header of this server's port naming localhost, the address listened on, or any
  // address written as numbers: a rebinding attack needs a DNS name of its own.
  bool HostAllowed(const std::string& value) const {
    std::string name = value, port;
    if (!value.empty() && value[0] == '[') {
      const size_t close = value.find(']');
      if (close == std::string::npos) return false;
      name = value.substr(1, close - 1);
      const std::string rest = value.substr(close + 1);
      if (!rest.empty() && rest[0] != ':') return false;
      if (!rest.empty()) port = rest.substr(1);
    } else if (const size_t colon = value.rfind(':'); colon != std::string::npos) {
      name = value.substr(0, colon);
      port = value.substr(colon + 1);
    }
    if (port.empty() ? port_ != 80 : port != std::to_string(port_)) return false;
    name = LowerCase(name);
    if (name.empty()) return false;
    if (name == "localhost" || name == LowerCase(options_.listen)) return true;
    boost::system::error_code error;
    net::ip::make_address(name, error);
    return !error;
  }

  Host& host_;
  const ServeOptions& options_;
  const int port_;
  const std::map<std::string, Reply> pages_;
  HostJobs jobs_;
  ProgressView progress_;
  SpecimenCache specimens_;
};

// One connection: requests read one after the other, each within kReadTime, answered within
// kWriteTime.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(tcp::socket&& socket, Server& server) : stream_(std::move(socket)), server_(server) {}

  void Start() { net::dispatch(stream_.get_executor(), beast::bind_front_handler(&Session::Read, shared_from_this())); }

 private:
  void Read() {
    parser_.emplace();
    parser_->header_limit(kLargestHeader);
    parser_->body_limit(kLargestUpload);
    stream_.expires_after(kReadTime);
    http::async_read_header(stream_, buffer_, *parser_,
                            beast::bind_front_handler(&Session::OnHeader, shared_from_this()));
  }

  void OnHeader(beast::error_code error, size_t) {
    if (error == http::error::body_limit) return Send(TooLarge(), true);
    if (error) return Close();
    if (auto refusal = server_.Refusal(parser_->get())) return Send(std::move(*refusal), true);
    http::async_read(stream_, buffer_, *parser_, beast::bind_front_handler(&Session::OnRead, shared_from_this()));
  }

  void OnRead(beast::error_code error, size_t) {
    if (error == http::error::body_limit) return Send(TooLarge(), true);
    if (error) return Close();
    stream_.expires_never();
    request_ = parser_->release();
    const bool keep_alive = request_.keep_alive();
    auto self = shared_from_this();
    server_.Answer(request_, [self, keep_alive](Reply reply) {
      net::post(self->stream_.get_executor(),
                [self, keep_alive, reply = std::move(reply)]() mutable { self->Send(std::move(reply), !keep_alive); });
    });
  }

  static Reply TooLarge() {
    return ErrorReply(413,
                      "the picture is too large: at most " + std::to_string(kLargestUpload >> 20) + " MB may be sent");
  }

  void Send(Reply reply, bool close) {
    auto response = std::make_shared<http::response<http::string_body>>(http::status(reply.status), 11);
    response->set(http::field::server, "fontrix");
    response->set(http::field::content_type, reply.type);
    response->set(http::field::cache_control, reply.keep ? "private, max-age=3600" : "no-store");
    response->set("X-Content-Type-Options", "nosniff");
    response->set("X-Frame-Options", "DENY");
    response->set("Referrer-Policy", "no-referrer");
    response->set("Content-Security-Policy",
                  "default-src 'self'; img-src 'self' blob:; style-src 'self'; script-src 'self'; "
                  "frame-ancestors 'none'");
    response->keep_alive(!close);
    response->body() = std::move(reply.body);
    response->prepare_payload();
    stream_.expires_after(kWriteTime);
    http::async_write(stream_, *response,
                      [self = shared_from_this(), response, close](beast::error_code error, size_t) {
                        if (error) return;
                        if (close) return self->Drain();
                        self->Read();
                      });
  }

  // After refusing a request the client may still be sending its body: what comes is read and
  // dropped for a while, so the client reads the refusal rather than a reset connection.
  void Drain() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.expires_after(std::chrono::seconds(5));
    DrainMore();
  }
  void DrainMore() {
    stream_.async_read_some(net::buffer(scratch_), [self = shared_from_this()](beast::error_code error, size_t) {
      if (!error) self->DrainMore();
    });
  }

  void Close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
  }

  beast::tcp_stream stream_;
  Server& server_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::request<http::string_body> request_;
  char scratch_[16384];
};

void Accept(tcp::acceptor& acceptor, Server& server) {
  acceptor.async_accept(net::make_strand(acceptor.get_executor()), [&](beast::error_code error, tcp::socket socket) {
    if (!error) std::make_shared<Session>(std::move(socket), server)->Start();
    if (acceptor.is_open()) Accept(acceptor, server);
  });
}

// The page's files, read once: a missing one stops the server before it listens.
std::map<std::string, Reply> ReadPage(const std::string& folder) {
  std::map<std::string, Reply> pages;
  for (const PageFile& file : kPageFiles) {
    const std::string path = folder + "/" + file.file;
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    if (!in) throw std::runtime_error("cannot read the page's file " + path);
    pages[file.route] = {200, file.type, bytes.str(), false};
  }
  return pages;
}

std::string PageFolder(Host& host, const ServeOptions& options) {
  if (!options.page_dir.empty()) return options.page_dir;
  std::error_code error;
  const std::string installed = host.FolderPath(kQVFolderPluginData) + "/web";
  if (std::filesystem::exists(installed + "/index.html", error)) return installed;
  return FONTRIX_SOURCE_PAGE_DIR;
}

// The desktop's browser, if it has one; the address is printed either way.
void OpenBrowser(const std::string& url) {
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  pid_t pid = 0;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const int failed = posix_spawnp(&pid, "xdg-open", &actions, nullptr, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed) {
    std::fprintf(stderr, "fontrix: cannot open a browser (no xdg-open): open %s yourself\n", url.c_str());
    return;
  }
  std::thread([pid] { waitpid(pid, nullptr, 0); }).detach();
}

}  // namespace

int Serve(Host& host, const ServeOptions& options, const volatile std::sig_atomic_t& stop) {
  std::map<std::string, Reply> pages;
  try {
    pages = ReadPage(PageFolder(host, options));
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "fontrix: %s\n", e.what());
    return 1;
  }
  HeldSuite<FontrixProgressSuite> progress(host, kFontrixProgressSuite, kFontrixProgressSuiteVersion);
  net::io_context io;
  tcp::acceptor acceptor(io);
  beast::error_code error;
  const net::ip::address address = net::ip::make_address(options.listen, error);
  if (error) {
    std::fprintf(stderr, "fontrix: --listen needs an IP address such as 127.0.0.1 or ::1, not '%s'\n",
                 options.listen.c_str());
    return 1;
  }
  const tcp::endpoint endpoint(address, static_cast<unsigned short>(options.port));
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(net::socket_base::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
  if (error) {
    std::fprintf(stderr, "fontrix: cannot listen on %s port %d: %s\n", options.listen.c_str(), options.port,
                 error.message().c_str());
    return 1;
  }
  const int port = acceptor.local_endpoint().port();
  const std::string url =
      "http://" + (address.is_v6() ? "[" + options.listen + "]" : options.listen) + ":" + std::to_string(port) + "/";
  if (options.listen_given && !address.is_loopback())
    std::fprintf(stderr,
                 "fontrix: WARNING: listening on %s, not on this machine alone: anyone who can reach it on port %d "
                 "can use the page and see which fonts are installed here\n",
                 options.listen.c_str(), port);
  Server server(host, options, port, std::move(pages));
  server.Progress().Update(*progress);
  Accept(acceptor, server);
  std::vector<std::thread> threads;
  for (int i = 0; i < kNetworkThreads; ++i) threads.emplace_back([&io] { io.run(); });
  std::printf("%s\n", url.c_str());
  std::fflush(stdout);
  std::fprintf(stderr, "fontrix: the page is at %s (Ctrl-C stops the server)\n", url.c_str());
  if (options.open) OpenBrowser(url);

  // The host's loop: requests' work, idle ticks for the module, and its progress for the page.
  Clock::time_point seen = Clock::now();
  while (!stop) {
    server.Jobs().RunFor(std::chrono::milliseconds(5));
    host.Idle();
    if (Clock::now() - seen > std::chrono::milliseconds(100)) {
      server.Progress().Update(*progress);
      seen = Clock::now();
    }
  }
  std::fprintf(stderr, "fontrix: stopping the server\n");
  // The network threads stop first: the acceptor is theirs while they run, and closing it from
  // this thread meanwhile would race with their accept handler.
  io.stop();
  for (std::thread& thread : threads) thread.join();
  acceptor.close(error);
  server.Jobs().Clear();
  return 0;
}

}  // namespace fontrix::host
