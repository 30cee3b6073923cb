// What a client may send to the endpoint for metrics: the first byte says in pieces of which size.
// Splitting must never matter, there is one well-formed answer at most, and the page is for those
// alone who ask for it.

#include <memory>
#include <string>
#include <string_view>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/net/event_loop.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/server/metrics/metrics_endpoint.h"
#include "fuzz/fuzz_input.h"

namespace varnic::fuzz {
namespace {

constexpr char kPage[] = "metric 1\n";

// Whatever arrives after the answer changes nothing.
std::string AnswerTo(net::EventLoop& loop, std::string_view bytes, std::size_t piece_size) {
  net::testing::FakePeer peer;
  int pages = 0;
  MetricsEndpoint endpoint(loop, [&pages] {
    ++pages;
    return kPage;
  });
  endpoint.Serve(peer.MakeStream());
  peer.SendInPieces(bytes, piece_size);
  const std::string answer = peer.Take();
  VARNIC_CHECK(peer.open());
  VARNIC_CHECK(peer.has_farewell() == !answer.empty());
  VARNIC_CHECK(pages == (absl::StartsWith(answer, "HTTP/1.1 200 OK\r\n") ? 1 : 0));
  peer.Close();
  VARNIC_CHECK(endpoint.open_connections() == 0);
  return answer;
}

void CheckIsWellFormed(std::string_view answer) {
  const std::size_t end_of_head = answer.find("\r\n\r\n");
  VARNIC_CHECK(end_of_head != std::string_view::npos);
  const std::string head(answer.substr(0, end_of_head + 2));
  const std::size_t body_size = answer.size() - end_of_head - 4;
  VARNIC_CHECK(absl::StartsWith(head, "HTTP/1.1 "));
  VARNIC_CHECK(absl::EndsWith(head, "\r\nConnection: close\r\n"));
  // The body of an answer to HEAD is left out.
  VARNIC_CHECK(body_size == 0 ||
               absl::StrContains(head, absl::StrCat("\r\nContent-Length: ", body_size, "\r\n")));
}

void Check(FuzzInput input) {
  net::EventLoop loop;
  const std::size_t piece_size = input.TakeByte() + std::size_t{1};
  const std::string_view bytes = input.TakeRest();
  const std::string answer = AnswerTo(loop, bytes, piece_size);
  VARNIC_CHECK(answer == AnswerTo(loop, bytes, bytes.size() + 1));
  if (!answer.empty()) CheckIsWellFormed(answer);
  // Who has sent so much has been answered.
  VARNIC_CHECK(!answer.empty() || bytes.size() < (8 << 10));
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::Check(varnic::fuzz::FuzzInput(data, size));
  return 0;
}
