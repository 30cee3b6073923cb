"""What is compared with what: the systems, and the rows of the table."""

import dataclasses

# A figure's key in a load generator's line, its heading, and whether less of it is better.
P50 = ("p50_us", "p50, µs", True)
P99 = ("p99_us", "p99, µs", True)
RATE = ("per_second", "per second", False)
CPU = ("server_cpu_us", "server CPU, µs each", True)
BYTES = ("bytes", "bytes", True)


@dataclasses.dataclass(frozen=True)
class System:
    """`server` and what follows its address; `load` speaks its protocol, `client` is its own client."""
    server: str
    load: str
    client: str = ""
    arguments: tuple = ()


SYSTEMS = {
    "varnic": System("varnic_echo_server", "grpc_load", "varnic_client_load"),
    # The same with limits that are never reached: what a limit costs that is.
    "varnic, relaxed": System("varnic_echo_server", "grpc_load", arguments=("relaxed",)),
    "grpc++ sync": System("grpc_sync_server", "grpc_load", "grpc_client_load"),
    "grpc++ callback": System("grpc_callback_server", "grpc_load", "grpc_client_load"),
    "grpc++ async": System("grpc_async_server", "grpc_load", "grpc_client_load"),
    "capnp": System("capnp_server", "capnp_load", "capnp_load"),
    "epoll echo": System("epoll_echo", "raw_load"),
    "redis": System("redis-server", "raw_load"),
}

ONE_THREAD = ["varnic", "grpc++ callback", "grpc++ async", "capnp"]
STREAMS = ["varnic", "grpc++ sync", "grpc++ callback", "grpc++ async", "capnp"]
CALLS = STREAMS + ["epoll echo"]
RELAXED = ["varnic, relaxed"]


@dataclasses.dataclass(frozen=True, eq=False)
class Row:
    """One row: what the load generator is to do, and what of its figures is shown. The first figure is
    the one that systems are compared by."""
    name: str
    title: str
    mode: str
    figures: tuple
    systems: list
    arguments: dict = dataclasses.field(default_factory=dict)
    short: dict = dataclasses.field(default_factory=dict)  # Instead, in a short run.
    tcp: bool = False
    own_client: bool = False

    def load_arguments(self, short):
        return {**self.arguments, **(self.short if short else {})}


ROWS = [
    Row("unary-unix", "One unary call at a time, Unix-domain socket", "unary",
        (P50, P99, CPU), CALLS + RELAXED),
    Row("unary-tcp", "One unary call at a time, TCP", "unary", (P50, P99, CPU), CALLS, tcp=True),
    Row("calls-100", "Unary calls, 100 outstanding on one connection", "unary", (RATE, CPU),
        CALLS + RELAXED, {"outstanding": 100}),
    Row("calls-100-tcp", "Unary calls, 100 outstanding on one connection, TCP", "unary", (RATE, CPU),
        CALLS, {"outstanding": 100}, tcp=True),
    Row("calls-10x10", "Unary calls, 10 outstanding on each of 10 connections", "unary",
        (RATE, CPU), CALLS, {"outstanding": 10, "connections": 10}),
    Row("question", "A question of the host and its answer, one at a time", "questions",
        (P50, P99, CPU), CALLS + RELAXED),
    Row("questions-100", "Questions and their answers, 100 open on one stream", "questions",
        (RATE, CPU), STREAMS + RELAXED, {"outstanding": 100}),
    Row("events-1000", "One event to 1,000 subscribers, streams on 10 connections: time to the last",
        "fan-out", (P50, RATE, CPU), STREAMS + RELAXED, {"connections": 10, "streams": 100},
        {"streams": 10}),
    Row("events-1000-tcp",
        "One event to 1,000 subscribers, streams on 10 connections, TCP: time to the last",
        "fan-out", (P50, RATE, CPU), STREAMS, {"connections": 10, "streams": 100},
        {"streams": 10}, tcp=True),
    Row("events-10000",
        "One event to 10,000 subscribers, streams on 10 connections: time to the last", "fan-out",
        (P50, RATE, CPU), ONE_THREAD, {"connections": 10, "streams": 1000}, {"streams": 20}),
    Row("events-1000-connections",
        "One event to 1,000 subscribers, each on a connection of its own: time to the last",
        "fan-out", (P50, RATE, CPU), STREAMS + ["epoll echo", "redis"], {"connections": 1000},
        {"connections": 50}),
    Row("open-close", "Streams opened, subscribed and closed, 10 at a time", "open-close",
        (RATE, CPU), STREAMS + RELAXED, {"outstanding": 10}),
    Row("memory-connection", "Memory of an idle connection", "idle", (BYTES,), STREAMS,
        {"connections": 1000, "streams": 0}, {"connections": 50}),
    Row("memory-stream", "Memory of an idle stream, subscription included, on 10 connections", "idle",
        (BYTES,), ONE_THREAD, {"connections": 10, "streams": 1000}, {"streams": 20}),
    Row("start", "From the start of the process to the first answered call", "start", (P50, P99),
        CALLS),
    Row("client-1", "One unary call at a time, each system's own client", "unary", (P50, P99, CPU),
        STREAMS, own_client=True),
    Row("client-100", "Unary calls, 100 outstanding, each system's own client", "unary", (RATE, CPU),
        STREAMS, {"outstanding": 100}, own_client=True),
]

# The same over both kinds of socket.
UNIX_AND_TCP = [("unary-unix", "unary-tcp"), ("calls-100", "calls-100-tcp"),
                ("events-1000", "events-1000-tcp")]

SIZE_TITLE = "Size of the server program, stripped; and with the shared libraries that it loads"
