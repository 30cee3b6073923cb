# The scenario of scenario.h, as Cap'n Proto would have it: streams are capabilities.
@0xe938eb4145eaf014;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("varnic::bench");

interface Host {
  # Answers with the same bytes.
  echo @0 (payload :Data) -> (payload :Data);
  # Until the subscription is dropped.
  subscribe @1 (subscriber :Subscriber) -> (subscription :Subscription);
  # Sends the event to every subscriber, and says how many there are.
  publish @2 (event :Data) -> (subscribers :UInt32);
  # Keeps so many questions to the answerer open from now on.
  ask @3 (answerer :Answerer, open :UInt32) -> ();
}

interface Subscription {}

interface Subscriber {
  onEvent @0 (event :Data) -> ();
}

interface Answerer {
  onQuestion @0 (question :Data) -> (answer :Data);
}
