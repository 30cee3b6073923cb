#include "core/server/envelope_stock.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "core/net/block_pool.h"

namespace varnic {
namespace {

using Envelope = EnvelopeStock::Envelope;

// Whether the stock gives out `envelope` again. The address alone would say little.
bool IsKept(EnvelopeStock& stock, std::unique_ptr<Envelope> envelope) {
  const Envelope* given = envelope.get();
  stock.Give(std::move(envelope));
  const auto blocker = std::make_unique<Envelope>();  // Takes its place, if it was freed.
  return stock.Take().get() == given;
}

std::unique_ptr<Envelope> WithPayload(std::size_t bytes) {
  auto envelope = std::make_unique<Envelope>();
  envelope->set_payload(std::string(bytes, 'x'));
  return envelope;
}

TEST(EnvelopeStockTest, ASmallEnvelopeIsUsedAgainAndComesEmpty) {
  EnvelopeStock stock;
  auto envelope = WithPayload(100);
  envelope->set_call_id(7);
  envelope->set_kind(Envelope::ERROR);
  stock.Give(std::move(envelope));

  const auto next = stock.Take();

  EXPECT_TRUE(next->SerializeAsString().empty());
  EXPECT_EQ(next->payload().capacity() >= 100, net::BlockPool::Keeps());
}

TEST(EnvelopeStockTest, WhatIsTakenTwiceIsNotTheSame) {
  EnvelopeStock stock;
  stock.Give(WithPayload(1));

  const auto one = stock.Take();
  const auto other = stock.Take();

  EXPECT_NE(one, other);
}

TEST(EnvelopeStockTest, ALargePayloadAndUnknownFieldsAreNotKept) {
  EnvelopeStock stock;
  auto unknown = std::make_unique<Envelope>();
  ASSERT_TRUE(unknown->ParseFromString("\x78\x01"));

  EXPECT_FALSE(IsKept(stock, WithPayload(2000)));
  EXPECT_FALSE(IsKept(stock, std::move(unknown)));
  EXPECT_EQ(IsKept(stock, WithPayload(1000)), net::BlockPool::Keeps());
}

}  // namespace
}  // namespace varnic
