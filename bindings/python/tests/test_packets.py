"""Recording packets that are encoded already."""

import subprocess
import threading
import unittest

import merulib
from support import LONG_SEC, FolderTest, output_of, picture_sums, streams


class PacketsTest(FolderTest):
    FRAMES = 50

    def setUp(self):
        super().setUp()
        self.encode("-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25", "-c:v", "libx264", "-preset", "ultrafast",
                    "-bf", "0", self.file("made.h264"))
        self.encode("-f", "lavfi", "-i", "sine=sample_rate=48000", "-c:a", "aac", self.file("made.aac"))
        self.video = [(packet, n * 40000) for n, packet in enumerate(self.packets("made.h264"))]
        self.audio = [(packet, n * 1024 * 1000000 // 48000) for n, packet in enumerate(self.packets("made.aac"))]
        self.assertEqual(len(self.video), self.FRAMES)

    def encode(self, *arguments):
        *options, output = arguments
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *options, "-t", "2", output], check=True)

    def packets(self, name):
        show = ["-of", "csv=p=0", "-show_entries", "packet=pos,size"]
        table = output_of("ffprobe", "-v", "error", *show, self.file(name))
        data = (self.folder / name).read_bytes()
        places = [line.strip(",").split(",") for line in table.decode().split()]
        return [data[int(pos) : int(pos) + int(size)] for size, pos in places]

    def test_pictures_and_sound_come_through(self):
        path = self.file("movie.mp4")
        with merulib.PacketRecorder(merulib.packet_info(path)) as recorder:
            sound = threading.Thread(target=lambda: [recorder.write_audio_packet(*pushed) for pushed in self.audio])
            sound.start()
            for packet, pts_usec in self.video:
                recorder.write_video_packet(packet, pts_usec)
            sound.join()
        self.assertEqual(streams(path), {"video": ("h264", self.FRAMES), "audio": ("aac", len(self.audio))})
        self.assertEqual(picture_sums(path), picture_sums(self.file("made.h264")))

    def test_packets_may_be_any_buffer_and_are_copied(self):
        path = self.file("movie.mp4")
        buffer = bytearray(1 << 16)
        with merulib.PacketRecorder(merulib.packet_info(path, audio_format=None)) as recorder:
            for n, (packet, pts_usec) in enumerate(self.video):
                if n % 3 == 0:
                    recorder.write_video_packet(memoryview(packet), pts_usec)
                else:
                    buffer[: len(packet)] = packet
                    recorder.write_video_packet(memoryview(buffer)[: len(packet)], pts_usec)
            recorder.write_video_packet(None, 0)  # nothing new
        self.assertEqual(picture_sums(path), picture_sums(self.file("made.h264")))

    def test_the_texts_of_the_description_are_the_recorder_s_own(self):
        info = merulib.packet_info(self.file("movie.mp4"), audio_format=None, other_urls=[self.file("copy.mkv")])
        recorder = merulib.PacketRecorder(info)
        info.video_format, info.other_urls[0] = b"aac", self.file("other.mkv").encode()
        del info
        with recorder:
            for pushed in self.video:
                recorder.write_video_packet(*pushed)
        for name in ("movie.mp4", "copy.mkv"):
            self.assertEqual(picture_sums(self.file(name)), picture_sums(self.file("made.h264")))
        self.assertFalse((self.folder / "other.mkv").exists())

    def test_the_start_is_told_once(self):
        told = []
        heard = threading.Event()

        def on_status(*args):
            told.append(args)
            heard.set()

        info = merulib.packet_info(self.file("movie.mp4"), audio_format=None)
        with merulib.PacketRecorder(info, on_status) as recorder:
            self.assertTrue(heard.wait(LONG_SEC))  # the start is over, its callback may not be yet
            for pushed in self.video:
                recorder.write_video_packet(*pushed)
        self.assertEqual(told, [(0, "start success")])

    def test_nothing_can_be_pushed_after_the_end(self):
        recorder = merulib.PacketRecorder(merulib.packet_info(self.file("movie.mp4"), audio_format=None))
        with recorder:
            for pushed in self.video:
                recorder.write_video_packet(*pushed)
        with self.assertRaisesRegex(ValueError, "is over"):
            recorder.write_video_packet(*self.video[0])


if __name__ == "__main__":
    unittest.main()
