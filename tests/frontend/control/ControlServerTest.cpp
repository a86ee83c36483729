#include "frontend/control/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/Fd.h"
#include "tests/support/NetnsFixture.h"

namespace Frontend {
namespace {

using nlohmann::json;

class ControlServerTest : public Platform::TestNet::LoopTest {
 protected:
   void SetUp() override {
      char tmpl[] = "/tmp/ctl-test-XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      path_ = dir_ + "/run/ctl.sock";
   }

   void TearDown() override {
      clients_.clear();
      server_.reset();
      std::filesystem::remove_all(dir_);
   }

   ControlServer& server() {
      if (!server_) {
         server_.emplace(loop_, path_, idleTimeout_);
         server_->handlerIs("echo", [](const json& request) { return request; });
         server_->handlerIs("refuse", [](const json&) -> json { throw ControlError("not today"); });
         server_->handlerIs("crash", [](const json&) -> json { throw std::runtime_error("bug"); });
         server_->handlerIs("big", [](const json& request) {
            return json(std::string(request.at("size").get<size_t>(), 'x'));
         });
         server_->asyncHandlerIs("later", [this](const json&, ControlServer::Reply reply) {
            pendingReplies_.push_back(std::move(reply));
         });
      }
      return *server_;
   }

   void startServer() {
      std::string error;
      ASSERT_TRUE(server().start(error)) << error;
   }

   // Connects (or binds, for a socket nobody listens on) to the server's path.
   int client(decltype(::connect) op = ::connect) {
      Platform::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
      EXPECT_EQ(op(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0)
          << std::strerror(errno);
      const int id = fd.get();
      clients_[id] = std::move(fd);
      return id;
   }

   void closeClient(int fd) { clients_.erase(fd); }

   // Sends everything, turning the loop whenever the socket buffer is full.
   void sendAll(int fd, const std::string& data) {
      size_t sent = 0;
      ASSERT_TRUE(turnUntil([&] {
         ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
         if (n > 0)
            sent += static_cast<size_t>(n);
         return sent == data.size();
      }));
   }

   // Reads until a whole line has arrived; nullopt when the server closed first.
   std::optional<json> reply(int fd) {
      std::string& buf = pending_[fd];
      bool closed = false;
      turnUntil([&] {
         char chunk[65536];
         ssize_t n;
         while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0)
            buf.append(chunk, static_cast<size_t>(n));
         closed = n == 0;
         return closed || buf.find('\n') != std::string::npos;
      });
      auto nl = buf.find('\n');
      if (nl == std::string::npos)
         return std::nullopt;
      json r = json::parse(buf.substr(0, nl));
      buf.erase(0, nl + 1);
      return r;
   }

   bool closedByServer(int fd) {
      return turnUntil([&] {
         char c;
         return recv(fd, &c, 1, 0) == 0;
      });
   }

   // The data of the next reply, which must be a success.
   json data(int fd) {
      const std::optional<json> r = reply(fd);
      EXPECT_TRUE(r && r->value("ok", false)) << (r ? r->dump() : "no reply");
      return r ? r->value("data", json()) : json();
   }
   static json echoed(const json& id) { return {{"cmd", "echo"}, {"id", id}}; }

   // The connection still gets an answer to a good request.
   void expectServed(int fd) {
      sendAll(fd, "{\"cmd\":\"echo\"}\n");
      data(fd);
   }

   std::string errorOf(const std::optional<json>& r) {
      if (!r || r->value("ok", true))
         return "<no error reply>";
      return r->at("error").get<std::string>();
   }

   std::string dir_;
   std::string path_;
   double idleTimeout_ = ControlServer::kIdleTimeout;
   std::optional<ControlServer> server_;
   std::map<int, Platform::Fd> clients_;
   std::map<int, std::string> pending_;
   std::vector<ControlServer::Reply> pendingReplies_;
};

// A command answered later (a reload reading its file) holds back the connection's next
// replies, so they stay in order; other connections are answered meanwhile, and a reply for
// a client that left goes nowhere.
TEST_F(ControlServerTest, AsynchronousRepliesKeepTheOrderAndOthersAreServedMeanwhile) {
   startServer();
   int waiting = client();
   sendAll(waiting, "{\"cmd\":\"later\"}\n{\"cmd\":\"echo\",\"id\":2}\n");
   ASSERT_TRUE(turnUntil([&] { return pendingReplies_.size() == 1; }));
   expectServed(client());
   pendingReplies_[0](controlReplyOk("done"));
   EXPECT_EQ(data(waiting), "done");
   EXPECT_EQ(data(waiting), echoed(2));

   const size_t open = server().connectionCount();
   int gone = client();
   sendAll(gone, "{\"cmd\":\"later\"}\n");
   ASSERT_TRUE(turnUntil([&] { return pendingReplies_.size() == 2; }));
   closeClient(gone);
   pendingReplies_[1](controlReplyOk("late"));
   EXPECT_TRUE(turnUntil([&] { return server().connectionCount() == open; }));
   expectServed(waiting);
}

TEST_F(ControlServerTest, AnswersPipelinedAndSplitRequestsInOrder) {
   startServer();
   int fd = client();
   // More requests in one write than the server answers per wake-up, with a blank line
   // that must not produce a reply.
   std::string batch;
   for (int i = 0; i < 20; ++i)
      batch += echoed(i).dump() + (i == 3 ? "\n\n" : "\n");
   sendAll(fd, batch);
   for (int i = 0; i < 20; ++i)
      EXPECT_EQ(data(fd), echoed(i));

   // A request arriving in pieces is answered once, when its newline arrives.
   sendAll(fd, R"({"cmd": "ec)");
   loop_.runOnce(0);
   sendAll(fd, "ho\", \"id\": \"split\"}\r\n");
   EXPECT_EQ(data(fd), echoed("split"));
}

TEST_F(ControlServerTest, BadRequestsGetErrorRepliesAndTheConnectionStaysUsable) {
   startServer();
   int fd = client();
   const std::string deep = std::string(30000, '[') + std::string(30000, ']');
   const std::vector<std::pair<std::string, std::string>> cases = {
       {"{\"cmd\": ", "malformed JSON request"},
       {"{\"cmd\": \"echo\", \"n\": 1e400}", "malformed JSON request"},
       {"not json at all", "malformed JSON request"},
       {"[1, 2]", "a request must be a JSON object"},
       {deep, "a request must be a JSON object"},
       {"\"show\"", "a request must be a JSON object"},
       {"{}", "a request needs a string \"cmd\""},
       {"{\"cmd\": 7}", "a request needs a string \"cmd\""},
       {"{\"cmd\": \"frobnicate\"}",
        "unknown command \"frobnicate\" (known: big, crash, echo, later, refuse)"},
       {"{\"cmd\": \"refuse\"}", "not today"},
       {"{\"cmd\": \"crash\"}", "internal error: bug"},
   };
   for (const auto& [request, expected] : cases) {
      sendAll(fd, request + "\n");
      EXPECT_EQ(errorOf(reply(fd)).substr(0, expected.size()), expected) << request.substr(0, 40);
   }
   expectServed(fd);
}

TEST_F(ControlServerTest, LineLimitAcceptsExactlyTheMaximumAndClosesBeyondIt) {
   startServer();
   // Padding inside the object keeps it valid JSON at any length.
   auto padded = [](size_t length) {
      std::string head = "{\"cmd\":\"echo\"";
      return head + std::string(length - head.size() - 1, ' ') + "}";
   };
   int fd = client();
   sendAll(fd, padded(kMaxControlLine) + "\n");
   data(fd);

   // Over the limit, with and without the newline having arrived.
   for (std::string tail : {"\n", ""}) {
      int fd = client();
      sendAll(fd, padded(kMaxControlLine + 1) + tail);
      EXPECT_EQ(errorOf(reply(fd)), "request line longer than 65536 bytes");
      EXPECT_TRUE(closedByServer(fd));
   }
   EXPECT_TRUE(turnUntil([&] { return server().connectionCount() == 1; }));
}

TEST_F(ControlServerTest, LargeRepliesSurvivePartialWritesAndClientsThatLeave) {
   startServer();
   const size_t size = 4 * 1024 * 1024;  // far more than a socket buffer holds
   int fd = client();
   sendAll(fd, json{{"cmd", "big"}, {"size", size}}.dump() + "\n");
   EXPECT_EQ(data(fd), json(std::string(size, 'x')));

   // Leaving mid-reply must not raise SIGPIPE in the agent or leak the connection.
   int leaver = client();
   sendAll(leaver, json{{"cmd", "big"}, {"size", size}}.dump() + "\n");
   loop_.runOnce(0);
   closeClient(leaver);
   // Leaving with requests still unread.
   int quitter = client();
   sendAll(quitter, "{\"cmd\":\"echo\"}\n{\"cmd\":\"echo\"}\n");
   closeClient(quitter);
   EXPECT_TRUE(turnUntil([&] { return server().connectionCount() == 1; }));

   // A last request without its newline is still answered after the client's shutdown.
   int last = client();
   sendAll(last, "{\"cmd\":\"echo\",\"id\":\"last\"}");
   shutdown(last, SHUT_WR);
   EXPECT_EQ(data(last), echoed("last"));
   EXPECT_TRUE(closedByServer(last));
}

// Neither silent nor busy clients lock operators out: at the limit the longest silent one
// makes room, a newcomer waits (its request queued) while all are busy and is served as
// soon as one has its answer, and silence ends a connection after the idle timeout.
TEST_F(ControlServerTest, SilentClientsMakeRoomAndTimeOut) {
   idleTimeout_ = 1.0;
   startServer();
   std::vector<int> open;
   for (size_t i = 0; i < ControlServer::kMaxConnections; ++i) {
      open.push_back(client());
      sendAll(open.back(), "{\"cmd\":");  // busy: half a request
      loop_.runOnce(0);
   }
   ASSERT_TRUE(turnUntil([&] { return server().connectionCount() == open.size(); }));
   loop_.runOnce(0);  // reads the last half request
   int extra = client();
   sendAll(extra, "{\"cmd\":\"echo\",\"id\":\"extra\"}\n");
   for (int i = 0; i < 5; ++i)
      loop_.runOnce(0);
   EXPECT_EQ(server().connectionCount(), ControlServer::kMaxConnections);

   // The first client finishes its request and falls silent: the waiting one takes its place.
   sendAll(open.front(), "\"echo\"}\n");
   data(open.front());
   EXPECT_EQ(data(extra), echoed("extra"));
   EXPECT_TRUE(closedByServer(open.front()));

   // Everyone else stays silent past the timeout.
   EXPECT_TRUE(closedByServer(open.back()));
   EXPECT_TRUE(turnUntil([&] { return server().connectionCount() == 0; }));
}

// Clients accepted in one go: one admitted with its request still unread in its socket is
// not taken for a silent one when the next needs its slot.
TEST_F(ControlServerTest, AJustAdmittedRequestIsNotEvicted) {
   startServer();
   std::vector<int> busy;
   for (size_t i = 0; i + 1 < ControlServer::kMaxConnections; ++i) {
      busy.push_back(client());
      sendAll(busy.back(), "{\"cmd\":");
      loop_.runOnce(0);
   }
   ASSERT_TRUE(turnUntil([&] { return server().connectionCount() == busy.size(); }));
   loop_.runOnce(0);
   const int asking = client();
   sendAll(asking, "{\"cmd\":\"echo\",\"id\":\"asking\"}\n");
   client();  // behind it in the backlog, silent
   EXPECT_EQ(data(asking), echoed("asking"));
}

// A stale socket is replaced, a live one is not stolen, and only the server's own file goes
// with it.
TEST_F(ControlServerTest, TheSocketFileIsPrivateReplacedOnlyWhenStaleAndRemovedOnlyIfOwn) {
   startServer();
   struct stat st;
   ASSERT_EQ(stat(path_.c_str(), &st), 0);
   EXPECT_TRUE(S_ISSOCK(st.st_mode));
   EXPECT_EQ(st.st_mode & 07777, 0600u);
   ASSERT_EQ(stat((dir_ + "/run").c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0700u);
   int fd = client();
   std::string error;
   {
      ControlServer second(loop_, path_);
      EXPECT_FALSE(second.start(error));
      EXPECT_NE(error.find("already running"), std::string::npos) << error;
   }
   expectServed(fd);
   server_.reset();
   EXPECT_FALSE(std::filesystem::exists(path_));
   EXPECT_TRUE(closedByServer(fd));

   // What a killed agent leaves behind: the file of a socket nobody listens on.
   closeClient(client(::bind));
   startServer();
   expectServed(client());

   // A file that replaced the server's socket survives the server, and the next server
   // refuses to start on it rather than remove it.
   std::filesystem::remove(path_);
   std::ofstream(path_) << "successor";
   server_.reset();
   EXPECT_FALSE(server().start(error));
   EXPECT_NE(error.find("is not a socket"), std::string::npos) << error;
   server_.reset();
   EXPECT_TRUE(std::filesystem::exists(path_));

   ControlServer unbindable(loop_, "/tmp/" + std::string(200, 'x'));
   EXPECT_FALSE(unbindable.start(error));
   EXPECT_NE(error.find("longer than 107 bytes"), std::string::npos) << error;
}

TEST_F(ControlServerTest, BlockingClientGetsRepliesAndReportsUnreachableAgents) {
   startServer();
   // The command line blocks on its socket, so it runs beside the loop here.
   std::atomic<bool> done = false;
   std::vector<std::optional<json>> replies;
   std::string clientError;
   std::thread cli([&] {
      ControlClient c;
      if (c.connect(path_, clientError)) {
         replies.push_back(c.request({{"cmd", "echo"}, {"n", 1}}, clientError));
         replies.push_back(c.request({{"cmd", "refuse"}}, clientError));
      }
      done = true;
   });
   EXPECT_TRUE(turnUntil([&] { return done.load(); }));
   cli.join();
   ASSERT_EQ(replies.size(), 2u) << clientError;
   ASSERT_TRUE(replies[0] && replies[1]);
   EXPECT_EQ(replies[0]->at("data").at("n"), 1);
   EXPECT_EQ(*replies[1], controlReplyError("not today"));

   std::string error;
   ControlClient nobody;
   EXPECT_FALSE(nobody.connect(dir_ + "/nothing.sock", error));
   EXPECT_EQ(error, std::strerror(ENOENT));
}

TEST(ControlProtocolTest, InvalidUtf8FromOutsideDoesNotBreakAReply) {
   EXPECT_EQ(controlLine(controlReplyOk(std::string("eth\xff"))),
             "{\"data\":\"eth\xEF\xBF\xBD\",\"ok\":true}\n");
   EXPECT_THROW(requestString(json{{"what", 3}}, "what"), ControlError);
   EXPECT_EQ(requestString(json{{"what", "vrfs"}}, "what"), "vrfs");
}

}  // namespace
}  // namespace Frontend
