#ifndef CORE_CLIENT_TESTING_SCRIPTED_SERVER_H_
#define CORE_CLIENT_TESTING_SCRIPTED_SERVER_H_

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/address.h"
#include "core/net/event_loop.h"
#include "core/net/frame_message.h"
#include "core/net/http2_connection.h"
#include "core/net/socket_stream.h"

namespace varnic::testing {

// An address that no other test has.
inline std::string NewClientTestAddress() {
  static int number = 0;
  return absl::StrCat("unix:", ::testing::TempDir(), "client_", getpid(), "_", ++number);
}

// A server on the client's own loop, which does with each request what the test says.
class ScriptedServer {
 public:
  using Script = std::function<void(net::Http2Session& session, net::StreamId stream_id)>;

  ScriptedServer(net::EventLoop& loop, const std::string& address,
                 const net::Http2Options& options = {})
      : loop_(loop), options_(options) {
    auto listener = net::Listener::Listen(
        loop, *net::Address::Parse(address), [this](std::unique_ptr<net::ByteStream> stream) {
          ++accepted;
          connections_.push_back(std::make_unique<Connection>(*this, std::move(stream)));
          if (close_at_once) connections_.back()->Close();
        });
    EXPECT_TRUE(listener.ok()) << listener.status();
    listener_ = *std::move(listener);
  }

  // Closes all connections, and accepts new ones.
  void CloseConnections() { connections_.clear(); }

  // When a request has begun, and when it has ended.
  Script on_open = [](net::Http2Session&, net::StreamId) {};
  Script script = [](net::Http2Session& session, net::StreamId stream_id) {
    Answer(session, stream_id, "good");
  };
  bool close_at_once = false;  // Every new connection.
  int accepted = 0;
  int opened = 0;
  int requests = 0;
  int resets = 0;        // Those of the client's calls that it did not let end.
  std::string framing;   // Of the last request: its varnic-framing.
  std::string received;  // The data of all requests.

  // Parts of an answer.
  static void SendHeaders(net::Http2Session& session, net::StreamId stream_id) {
    session.SendHeaders(stream_id, {{":status", "200"}, {"content-type", "application/grpc"}},
                        /*end_stream=*/false);
  }
  static void SendMessage(net::Http2Session& session, net::StreamId stream_id,
                          const std::string& text) {
    google::protobuf::StringValue value;
    value.set_value(text);
    session.SendData(stream_id, net::FrameMessage(value), /*end_stream=*/false);
  }
  static void Answer(net::Http2Session& session, net::StreamId stream_id, const std::string& text) {
    SendHeaders(session, stream_id);
    SendMessage(session, stream_id, text);
    session.SendTrailers(stream_id, {{"grpc-status", "0"}});
  }
  // Headers and status in one.
  static void Refuse(net::Http2Session& session, net::StreamId stream_id,
                     std::string_view grpc_status) {
    session.SendHeaders(
        stream_id,
        {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", grpc_status}},
        /*end_stream=*/true);
  }

 private:
  class Request : public net::Http2Session::Handler {
   public:
    Request(ScriptedServer& server, net::Http2Session& session, net::StreamId stream_id)
        : server_(server), session_(session), stream_id_(stream_id) {}

   private:
    void OnHeaders(const net::HeaderList& headers) override {
      ++server_.opened;
      server_.framing = std::string(headers.Find("varnic-framing"));
      server_.on_open(session_, stream_id_);
    }
    void OnData(std::string_view chunk) override { server_.received += chunk; }
    void OnRemoteEnd() override {
      ++server_.requests;
      server_.script(session_, stream_id_);
    }
    void OnClosed(net::Http2Error error) override {
      if (error == net::Http2Error::kCancel) ++server_.resets;
    }

    ScriptedServer& server_;
    net::Http2Session& session_;
    const net::StreamId stream_id_;
  };

  class Connection : private net::Http2Connection::Visitor {
   public:
    Connection(ScriptedServer& server, std::unique_ptr<net::ByteStream> stream) : server_(server) {
      net::Http2Connection::Visitor& visitor = *this;
      http2_ = std::make_unique<net::Http2Connection>(server.loop_, std::move(stream),
                                                      net::Http2Session::Role::kServer,
                                                      server.options_, visitor);
    }

    void Close() { http2_ = nullptr; }

   private:
    std::unique_ptr<net::Http2Session::Handler> OnNewStream(net::StreamId stream_id) override {
      return std::make_unique<Request>(server_, http2_->session(), stream_id);
    }
    void OnGoaway() override {}
    void OnConnectionClosed(const absl::Status& /*status*/) override {}

    ScriptedServer& server_;
    std::unique_ptr<net::Http2Connection> http2_;
  };

  net::EventLoop& loop_;
  const net::Http2Options options_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::unique_ptr<net::Listener> listener_;
};

}  // namespace varnic::testing

#endif  // CORE_CLIENT_TESTING_SCRIPTED_SERVER_H_
