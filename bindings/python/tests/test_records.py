"""Records, numbers and functions are those of the C headers."""

import ctypes
import re
import unittest

import merulib
from merulib import raw, records
from support import SOURCE

INCLUDE = SOURCE / "include" / "meru"


def header(name):
    return (INCLUDE / name).read_text(encoding="utf-8")


def without_comments(text):
    return re.sub(r"//.*", "", text)


@unittest.skipUnless(INCLUDE.is_dir(), "the headers are not here")
class RecordsTest(unittest.TestCase):
    RECORDS = [("movie_info.h", "MovieInfo_", merulib.MovieInfo), ("raw_packets.h", "MovieInfo2", merulib.MovieInfo2)]

    def test_sizes_are_those_of_the_headers(self):
        for name, c_name, record in self.RECORDS:
            with self.subTest(c_name):
                size = re.search(rf"sizeof\(struct {c_name}\) == (\d+)\)", header(name)).group(1)
                self.assertEqual(ctypes.sizeof(record), int(size))

    def test_every_field_lies_where_the_headers_say(self):
        for name, c_name, record in self.RECORDS:
            with self.subTest(c_name):
                offsets = re.findall(r"^MERU_ASSERT_OFFSET\((\w+), (\d+)\);", header(name), re.MULTILINE)
                self.assertEqual(
                    [(field, int(offset)) for field, offset in offsets],
                    [(field, getattr(record, field).offset) for field, _ in record._fields_],
                )

    def test_every_field_has_the_type_that_the_headers_say(self):
        types = {"char": ctypes.c_char, "const char*": ctypes.c_char_p, "bool": ctypes.c_bool, "int": ctypes.c_int,
                 "unsigned char": ctypes.c_ubyte}
        for name, c_name, record in self.RECORDS:
            body = re.search(rf"struct {c_name} \{{(.*?)^\}};", without_comments(header(name)), re.S | re.M).group(1)
            declared = re.findall(r"^  ([\w ]+?\*?) (\w+)(?:\[(\d+)\])?;", body, re.MULTILINE)
            self.assertEqual([field for _, field, _ in declared], [field for field, _ in record._fields_])
            for (c_type, field, count), (_, found) in zip(declared, record._fields_):
                with self.subTest(f"{c_name}.{field}"):
                    self.assertIs(found, types[c_type] * int(count) if count else types[c_type])

    def test_numbers_are_those_of_the_headers(self):
        pairs = [
            ("movie_info.h", "QUALITY_", records.Preset),
            ("movie_info.h", "PROFILE_", records.Profile),
            ("movie_info.h", "TUNE_", records.Tune),
            ("movie_info.h", "RATE_CONTROL_", records.RateControl),
            ("movie_info.h", "MERU_STATUS_", records.StatusCode),
            ("repair.h", "MERU_REPAIR_", records.RepairCode),
            ("log.h", "LOG_", records.LogLevel),
        ]
        for name, prefix, numbers in pairs:
            with self.subTest(prefix):
                declared = re.findall(rf"^  {prefix}(\w+) = (-?\d+)", header(name), re.MULTILINE)
                self.assertEqual({key: int(value) for key, value in declared}, {n.name: n.value for n in numbers})

    def test_version_is_that_of_the_headers(self):
        self.assertIn(f'MERU_VERSION_STRING "{merulib.__version__}"', header("export.h"))


@unittest.skipUnless(INCLUDE.is_dir(), "the headers are not here")
class FunctionsTest(unittest.TestCase):
    TYPES = {
        "void": None,
        "bool": ctypes.c_bool,
        "int": ctypes.c_int,
        "long long": ctypes.c_longlong,
        "const char*": ctypes.c_char_p,
        "void*": ctypes.c_void_p,
        "FILE*": ctypes.c_void_p,
        "FilterBase*": ctypes.c_void_p,
        "struct AVFrame*": ctypes.c_void_p,
        "void**": ctypes.POINTER(ctypes.c_void_p),
        "MovieInfo*": ctypes.POINTER(records.MovieInfo),
        "const MovieInfo*": ctypes.POINTER(records.MovieInfo),
        "const MovieInfo2*": ctypes.POINTER(records.MovieInfo2),
        "const struct AVRational*": ctypes.POINTER(records.AVRational),
        "MovieStatusCallback": raw.MovieStatusCallback,
        "MovieRepairCallback": raw.MovieRepairCallback,
    }

    def declared(self):
        """The functions as a C compiler sees them."""
        found = {}
        for path in INCLUDE.glob("*.h"):
            text = without_comments(path.read_text(encoding="utf-8"))
            text = re.sub(r"^#ifdef __cplusplus$.*?^#(else|endif).*?$", "", text, flags=re.S | re.M)
            for result, name, parameters in re.findall(r"^MERU_API ([\w ]+\*?) (\w+)\(([^)]*)\);", text, re.MULTILINE):
                names = [] if parameters == "void" else [p.strip() for p in parameters.split(",")]
                found[name] = (self.TYPES[result], [self.TYPES[self.type_of(p)] for p in names])
        return found

    @staticmethod
    def type_of(parameter):
        return re.sub(r"\s+", " ", re.sub(r"\w+$", "", parameter)).strip()

    def test_every_function_has_the_types_of_the_headers(self):
        self.assertEqual(self.declared(), raw.PROTOTYPES)

    def test_every_function_is_in_the_library(self):
        for name, (result, parameters) in raw.PROTOTYPES.items():
            function = getattr(raw, name)
            self.assertIs(function.restype, result)
            self.assertEqual(list(function.argtypes), parameters)

    def test_an_unknown_name_is_an_attribute_error(self):
        with self.assertRaises(AttributeError):
            raw.MERU_unknown

    def test_raw_functions_take_a_null_session(self):
        self.assertFalse(raw.MERU_pause(None))
        self.assertEqual(raw.MERU_movie_time(None), 0)
        raw.MERU_stop(None)


class DescriptionTest(unittest.TestCase):
    def test_what_is_left_out_gets_what_a_host_wants(self):
        info = merulib.movie_info("a.mp4", width=640, height=360, fps=30)
        self.assertEqual((info.url, info.snapshot_path, info.metadata), (b"a.mp4", b"", b""))
        self.assertEqual((info.width_src, info.height_src, info.gop_size), (640, 360, 60))
        self.assertEqual((info.no_video, info.no_audio), (False, True))
        self.assertEqual((info.pix_fmt_src, info.pix_fmt, info.colorspace), (28, 0, 2))

    def test_what_is_given_stays(self):
        info = merulib.movie_info(
            "a.mp4", width_src=8, height_src=6, width=4, height=2, gop_size=7, timeout_sec=3, use_hardware=True,
            sample_rate_src=44100, sample_rate_dst=48000, channels=1,
        )
        self.assertEqual((info.width_src, info.height_src, info.width, info.height), (8, 6, 4, 2))
        self.assertEqual((info.gop_size, info.timeout_sec, info.use_hardware), (7, 3, True))
        self.assertEqual((info.sample_rate_src, info.sample_rate_dst), (44100, 48000))
        self.assertEqual((info.no_audio, info.channels), (False, 1))

    def test_sound_alone_is_a_recording_without_video(self):
        info = merulib.movie_info("a.mp4", channels=1)
        self.assertEqual((info.no_video, info.no_audio), (True, False))
        self.assertEqual((info.sample_rate_src, info.sample_rate_dst), (48000, 48000))

    def test_an_unknown_field_is_refused(self):
        for name in ("bitrate", "reserved1", "urls"):
            with self.assertRaisesRegex(TypeError, name):
                merulib.movie_info("a.mp4", **{name: 1})

    def test_texts_that_do_not_fit_are_refused(self):
        self.assertEqual(len(merulib.movie_info("x" * 511).url), 511)
        cases = [
            {"url": "x" * 512},
            {"url": "\u00e4" * 256},
            {"url": "a\0b"},
            {"url": "a", "snapshot_path": "x" * 512},
            {"url": "a", "metadata": "x" * 256},
            {"url": "a", "metadata": {"title": "a;b"}},
            {"url": "a", "metadata": {"a:b": "c"}},
            {"url": "a", "other_urls": ["b", "c", "d", "e", "f"]},
            {"url": "a", "other_urls": ["b\0c"]},
        ]
        for case in cases:
            with self.subTest(str(case)[:60]), self.assertRaises(ValueError):
                merulib.movie_info(**case)

    def test_metadata_may_be_a_dictionary(self):
        info = merulib.movie_info("a", metadata={"title": "Meeting: one", "comment": ""})
        self.assertEqual(info.metadata, b"title:Meeting: one;comment:")

    def test_sizes_that_no_encoder_takes_are_refused_before_the_library_ends_the_process(self):
        video = "width", "height", "width_src", "height_src", "fps"
        for field in (*video, "channels", "sample_rate_src", "sample_rate_dst"):
            info = merulib.movie_info("a.mp4", width=64, height=48, channels=2)
            setattr(info, field, 0)
            with self.subTest(field), self.assertRaisesRegex(ValueError, field):
                merulib.Recorder(info)

    def test_packets_have_their_formats(self):
        info = merulib.packet_info("a.mp4", audio_format=None, other_urls=["b.mkv"])
        self.assertEqual((info.video_format, info.audio_format), (b"h264", None))
        self.assertEqual(list(info.other_urls), [b"b.mkv", None, None, None])


if __name__ == "__main__":
    unittest.main()
