"""Recording images and sound."""

import array
import sys
import threading
import unittest

import merulib
from support import (
    FPS, FRAME_USEC, HEIGHT, LONG_SEC, RATE, WIDTH, FolderTest, decoded_greys, decoded_sound, eventually, grey,
    output_of, picture_info, push_scene, small_info, streams, tone,
)


class RecorderTest(FolderTest):
    def record_greys(self, image_of, linesize=None, **fields):
        """Records ten pictures and checks that each has the level that it was made with."""
        path = self.file("movie.mp4")
        levels = [20 + 20 * n for n in range(10)]
        with merulib.Recorder(picture_info(path, **fields)) as recorder:
            for n, level in enumerate(levels):
                self.assertTrue(recorder.write_image(image_of(level), n * FRAME_USEC, linesize))
        decoded = decoded_greys(path)
        self.assertEqual(len(decoded), len(levels))
        for level, (darkest, brightest) in zip(levels, decoded):
            self.assertLessEqual(abs(darkest - level), 6)
            self.assertLessEqual(abs(brightest - level), 6)

    def test_pictures_and_sound_come_out_as_they_went_in(self):
        path = self.file("movie.mp4")
        with merulib.Recorder(small_info(path)) as recorder:
            push_scene(recorder, 2 * FPS)
            self.assertEqual(recorder.movie_time, (2 * FPS - 1) * FRAME_USEC)
        self.assertEqual(recorder.movie_time, (2 * FPS - 1) * FRAME_USEC)
        found = streams(path)
        self.assertEqual(found["video"], ("h264", 2 * FPS))
        self.assertEqual(found["audio"][0], "aac")
        for n, (darkest, brightest) in enumerate(decoded_greys(path)):
            self.assertLessEqual(abs(darkest - (n + 20)), 6)
            self.assertLessEqual(abs(brightest - (n + 20)), 6)
        samples = decoded_sound(path)
        self.assertLessEqual(abs(len(samples) - 2 * RATE), 2048)
        steady = samples[RATE // 2 : RATE]
        crossings = sum(a < 0 <= b for a, b in zip(steady, steady[1:]))
        self.assertLessEqual(abs(crossings - 220), 2)  # half a second of 440 Hz
        self.assertLess(abs(max(steady) - 10000), 1500)

    def test_images_may_be_any_buffer_without_gaps(self):
        shaped = lambda level: memoryview(bytearray(grey(level))).cast("B", (HEIGHT, WIDTH, 4))
        buffers = {
            "bytes": grey,
            "bytearray": lambda level: bytearray(grey(level)),
            "memoryview of bytes": lambda level: memoryview(grey(level)),
            "array of integers": lambda level: array.array("I", grey(level)),
            "rows of pixels": shaped,
            "read-only rows of pixels": lambda level: shaped(level).toreadonly(),
        }
        for name, image_of in buffers.items():
            with self.subTest(name):
                self.record_greys(image_of)

    def test_bytes_between_rows_are_no_pixels(self):
        def padded(level):
            row = grey(level)[: WIDTH * 4]
            return (row + b"\xff" * 12) * (HEIGHT - 1) + row  # nothing behind the last row

        self.record_greys(padded, linesize=WIDTH * 4 + 12)

    def test_planes_follow_each_other(self):
        def planar(level):
            return bytes([16 + level * 219 // 255]) * (WIDTH * HEIGHT) + b"\x80" * (WIDTH * HEIGHT // 2)

        for format in (merulib.PixelFormat.YUV420P, merulib.PixelFormat.NV12):
            with self.subTest(format.name):
                self.record_greys(planar, pix_fmt_src=format)

    def test_an_image_that_is_too_small_is_refused(self):
        size = {merulib.PixelFormat.BGRA: WIDTH * HEIGHT * 4, merulib.PixelFormat.RGB24: WIDTH * HEIGHT * 3,
                merulib.PixelFormat.YUV420P: WIDTH * HEIGHT * 3 // 2, merulib.PixelFormat.NV21: WIDTH * HEIGHT * 3 // 2,
                merulib.PixelFormat.YUV422P: WIDTH * HEIGHT * 2, merulib.PixelFormat.YUYV422: WIDTH * HEIGHT * 2,
                merulib.PixelFormat.YUV444P: WIDTH * HEIGHT * 3, merulib.PixelFormat.GRAY8: WIDTH * HEIGHT}
        for format, nbytes in size.items():
            info = picture_info(self.file("movie.mp4"), pix_fmt_src=format)
            with self.subTest(format.name), merulib.Recorder(info) as recorder:
                self.assertTrue(recorder.write_image(bytes(nbytes), 0))
                with self.assertRaisesRegex(ValueError, f"takes {nbytes} bytes, not {nbytes - 1}"):
                    recorder.write_image(bytes(nbytes - 1), FRAME_USEC)

    def test_buffers_that_cannot_be_read_as_an_image_are_refused(self):
        with merulib.Recorder(picture_info(self.file("movie.mp4"))) as recorder:
            for image, linesize, error in [
                (b"", None, ValueError),
                (memoryview(bytes(2 * WIDTH * HEIGHT * 4))[::2], None, ValueError),
                (grey(1), WIDTH * 4 - 1, ValueError),
                (grey(1), 2**40, ValueError),
                (grey(1), -1, ValueError),
                ("text", None, TypeError),
                (None, None, TypeError),
            ]:
                with self.assertRaises(error):
                    recorder.write_image(image, 0, linesize)
            with self.assertRaises(OverflowError):
                recorder.write_image(grey(1), 2**63)
            with self.assertRaises(OverflowError):
                recorder.write_samples(b"", -(2**64))

    def test_an_unknown_pixel_format_needs_the_linesize(self):
        gray16 = 30  # AV_PIX_FMT_GRAY16LE
        path = self.file("movie.mp4")
        with merulib.Recorder(picture_info(path, pix_fmt_src=gray16)) as recorder:
            with self.assertRaisesRegex(ValueError, "give linesize"):
                recorder.write_image(bytes(WIDTH * HEIGHT * 2), 0)
            self.assertTrue(recorder.write_image(bytes(WIDTH * HEIGHT * 2), 0, WIDTH * 2))
        self.assertEqual(streams(path)["video"], ("h264", 1))

    def test_a_buffer_is_the_caller_s_again(self):
        image, samples = bytearray(grey(9)), tone(0)
        with merulib.Recorder(small_info(self.file("movie.mp4"))) as recorder:
            before = sys.getrefcount(image), sys.getrefcount(samples)
            for n in range(5):
                recorder.write_image(image, n * FRAME_USEC)
                recorder.write_samples(samples, n * FRAME_USEC)
                self.assertEqual((sys.getrefcount(image), sys.getrefcount(samples)), before)
            image.append(0)  # a bytearray that is lent could not grow
            samples.append(0)

    def test_paused_time_is_not_in_the_movie(self):
        path = self.file("movie.mp4")
        with merulib.Recorder(picture_info(path)) as recorder:
            first = merulib.now_usec()
            self.assertTrue(recorder.write_image(grey(50), first))
            before_pause = merulib.now_usec()
            self.assertTrue(recorder.pause())
            after_pause = merulib.now_usec()
            self.assertTrue(recorder.is_paused)
            self.assertFalse(recorder.write_image(grey(50), merulib.now_usec()))
            self.assertTrue(eventually(lambda: merulib.now_usec() > after_pause + 500000))
            before_resume = merulib.now_usec()
            self.assertTrue(recorder.resume())
            after_resume = merulib.now_usec()
            self.assertFalse(recorder.is_paused)
            self.assertFalse(recorder.resume())
            last = after_resume + 2 * FRAME_USEC
            self.assertTrue(recorder.write_image(grey(50), last))
            self.assertLessEqual(last - first - (after_resume - before_pause), recorder.movie_time)
            self.assertLessEqual(recorder.movie_time, last - first - (before_resume - after_pause))
        self.assertEqual(streams(path)["video"], ("h264", 2))

    def test_silence_fills_a_gap(self):
        path = self.file("sound.m4a")
        with merulib.Recorder(merulib.movie_info(path, channels=2)) as recorder:
            recorder.write_samples(tone(0), 0)
            self.assertTrue(recorder.write_samples(None, 1000000 - FRAME_USEC))  # the gap, from the tone's first sample on
            recorder.write_samples(tone(25), 1000000)
        samples = decoded_sound(path)
        self.assertLessEqual(abs(len(samples) - RATE * 26 // 25), 3072)
        self.assertEqual(max(samples[RATE // 4 : RATE * 3 // 4]), 0)

    def test_further_outputs_get_the_same(self):
        info = picture_info(self.file("movie.mp4"), metadata={"title": "Test"})
        info.other_urls[0] = self.file("copy.mkv").encode()
        recorder = merulib.Recorder(info)
        info.other_urls[0] = self.file("other.mkv").encode()  # the recorder has its own text by now
        del info
        with recorder:
            for n in range(10):
                recorder.write_image(grey(n), n * FRAME_USEC)
        self.assertEqual(streams(self.file("movie.mp4")), {"video": ("h264", 10)})
        self.assertEqual(streams(self.file("copy.mkv")), {"video": ("h264", 10)})
        self.assertFalse((self.folder / "other.mkv").exists())

    def test_the_session_s_record_has_what_the_encoders_made_of_it(self):
        path = self.file("movie.mp4")
        with merulib.Recorder(small_info(path, sample_rate_dst=47000)) as recorder:
            used = recorder.info
            push_scene(recorder, 5)
        self.assertEqual(used.url, path.encode())
        found = output_of("ffprobe", "-v", "error", "-select_streams", "a", "-of", "csv=p=0",
                          "-show_entries", "stream=sample_rate", path)
        self.assertEqual(int(found), used.sample_rate_dst)
        self.assertNotEqual(used.sample_rate_dst, 47000)  # which AAC does not have

    def test_an_asynchronous_start_is_waited_for(self):
        told = []
        path = self.file("movie.mp4")
        with merulib.Recorder(picture_info(path), lambda *args: told.append(args), asynchronous=True) as recorder:
            self.assertTrue(recorder.wait_started(LONG_SEC))
            for n in range(5):
                self.assertTrue(recorder.write_image(grey(n), n * FRAME_USEC))
        self.assertEqual(told, [(0, "start OK")])
        self.assertEqual(streams(path)["video"], ("h264", 5))

    def test_pictures_and_sound_may_come_from_two_threads(self):
        path = self.file("movie.mp4")
        with merulib.Recorder(small_info(path)) as recorder:
            sound = threading.Thread(
                target=lambda: [recorder.write_samples(tone(n), n * FRAME_USEC) for n in range(50)]
            )
            sound.start()
            for n in range(50):
                recorder.write_image(grey(n), n * FRAME_USEC)
            sound.join()
        self.assertEqual(streams(path)["video"], ("h264", 50))
        self.assertLessEqual(abs(len(decoded_sound(path)) - 2 * RATE), 2048)

    def test_raw_functions_work_on_the_handle(self):
        from merulib import raw
        from merulib.records import AVRational

        path = self.file("movie.mp4")
        usec = AVRational(1, 1000000)
        with merulib.Recorder(picture_info(path)) as recorder:
            for _ in range(5):
                frame = raw.MERU_generate_testing_vFrame(recorder.handle, usec)
                self.assertTrue(raw.MERU_write_video_frame(recorder.handle, frame, usec))
        self.assertIsNone(recorder.handle)
        self.assertEqual(streams(path)["video"], ("h264", 5))


if __name__ == "__main__":
    unittest.main()
