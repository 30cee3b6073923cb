"""What a gRPC client that is not ours does with two services of one host, on one connection and over
each transport. See two_services.h for what the host does when it is called."""

import os
import unittest

import foreign
from foreign import Code

# pylint: disable=wrong-import-order
import download_pb2
from rpc.profile import profile_pb2

from profile_peer import Peer, file_answer, files, profile_id, subscription


class TwoServicesScenarios(foreign.Scenarios):
    host_program = os.environ["VARNIC_TWO_SERVICES_HOST"]

    def setUp(self):
        self.peer = Peer(self.channel)
        self.streams = []
        self.addCleanup(self.end_streams)

    def end_streams(self):
        for stream in self.streams:
            stream.cancel()
        self.peer.wait_for("streams", 0)

    def open(self, method, first, counted_as):
        stream = self.channel.open(method, first=first)
        self.streams.append(stream)
        self.peer.wait_for(counted_as, 1, "P")
        return stream

    def answer_for_files(self):
        return self.open("/rpc.Profile/OnCanAccessFile", files("P", subscribe=True),
                         "file answerers")

    def answer_for_downloads(self):
        subscribe = download_pb2.KeepDangerousFile(profile_id=profile_id("P"), subscribe=True)
        return self.open("/download.Downloads/OnKeepDangerousFile", subscribe,
                         "download answerers")

    def start(self):
        request = download_pb2.StartRequest(profile_id=profile_id("P"))
        return self.channel.call("/download.Downloads/Start", request).result()

    def download(self, method, download):
        return self.channel.call(f"/download.Downloads/{method}", download)

    def test_calls_reach_the_service_that_they_name(self):
        first, second = self.start(), self.start()

        self.assertEqual(second.value, first.value + 1)
        self.download("Pause", second).result()
        self.assertEqual(self.peer.publish("P"), 0)
        self.assert_ends(self.download("Pause", download_pb2.DownloadId()), Code.NOT_FOUND)

    def test_events_of_one_profile_stay_apart(self):
        network = self.open("/rpc.Profile/WhenNetworkChanged", subscription("P"),
                            "network subscribers")
        progress = self.open("/download.Downloads/WhenProgressed", subscription("P"),
                             "progress subscribers")

        self.assertEqual(self.peer.publish("P"), 1)
        started = self.start()
        self.download("Pause", started).result()

        self.assertEqual(network.receive(), profile_pb2.NetworkChanged(
            profile_id=profile_id("P"), online=True))
        for state in (download_pb2.Progress.RUNNING, download_pb2.Progress.PAUSED):
            self.assertEqual(progress.receive(), download_pb2.Progress(
                profile_id=profile_id("P"), download_id=started, state=state))

    def test_questions_about_one_profile_stay_apart(self):
        file_stream = self.answer_for_files()
        downloads = self.answer_for_downloads()
        started = self.start()

        path = self.peer.ask("Path", "P")
        resumed = self.download("Resume", started)
        file_question, download_question = file_stream.receive(), downloads.receive()
        downloads.send(download_pb2.KeepDangerousFile(
            profile_id=profile_id("P"),
            call_id=download_question.call_id,
            response=download_pb2.KeepDangerousFile.Response(keep=True),
        ))
        file_stream.send(file_answer(file_question, False))

        resumed.result()
        self.assertEqual(path.result().value, "refused")
        self.assertEqual(file_question.request.path, "/etc/motd")
        self.assertEqual(download_question.request.file_name, "setup.exe")

    def test_who_answers_for_one_service_is_not_asked_by_the_other(self):
        self.answer_for_files()

        self.assert_ends(self.download("Resume", self.start()), Code.NOT_FOUND)


foreign.over_each_transport(TwoServicesScenarios, globals())


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = [globals()[name] for name in foreign.TRANSPORTS]
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
