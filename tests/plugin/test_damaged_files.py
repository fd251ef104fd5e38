#!/usr/bin/python3
"""The real module on damaged files and shared folders, through the tool: a damaged cache is
said once and made again, shipped data that cannot be used fails the commands that need it
with the file named, and processes indexing into one folder at once leave caches that agree.

Usage: test_damaged_files.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import math
import os
import shutil
import struct
import subprocess

import shipped_data_tool
from shipped_data_tool import ShippedDataTest, main

RECORD = 768 * 4
# Holds a cache folder's lock as a writer does, naming itself in it, for argv[2] seconds.
HOLD_LOCK = """
import fcntl, os, sys, time
fd = os.open(os.path.join(sys.argv[1], "fontrix.lock"), os.O_RDWR | os.O_CREAT)
fcntl.flock(fd, fcntl.LOCK_EX)
os.ftruncate(fd, 0)
os.write(fd, b"%d\\n" % os.getpid())
print("held", flush=True)
time.sleep(float(sys.argv[2]))
"""


def read_cache(folder):
    """(names, records) of a similarity cache pair; fails the test if the files disagree."""
    with open(os.path.join(folder, "NQ_sim_meta_sys.cch")) as f:
        lines = f.read().splitlines()
    with open(os.path.join(folder, "NQ_sim_fea_sys.cch"), "rb") as f:
        data = f.read()
    assert len(lines) % 6 == 0 and len(data) == RECORD * (len(lines) // 6), (len(lines), len(data))
    with open(os.path.join(folder, "NQ_sim_sums_sys.cch")) as f:
        sums = f.read().splitlines()
    assert sums[0] == "fontrix similarity sums 2" and len(sums) - 1 == len(lines) // 6
    return lines[3::6], data


class DamagedFilesTest(ShippedDataTest):
    def setUp(self):
        self.data = os.path.join(self.tmp.name, "data")
        shutil.rmtree(self.data, ignore_errors=True)
        shutil.copytree(shipped_data_tool.DATA, self.data)
        self.folder = os.path.join(self.tmp.name, self.id().rsplit(".", 1)[1])

    def tool(self, *args):
        return subprocess.run([shipped_data_tool.FONTRIX, "--module", shipped_data_tool.MODULE, "--data-dir", self.data,
                               "--cache-dir", self.folder, *args], capture_output=True, text=True, timeout=900,
                              env=self.env)

    def test_a_damaged_similarity_cache_is_said_once_and_made_again(self):
        self.assertEqual(self.tool("--disable", "recognition,classification", "index").returncode, 0)
        names, data = read_cache(self.folder)
        if len(names) < 2:
            self.skipTest("fewer than two installed fonts outside the shipped table")
        meta = os.path.join(self.folder, "NQ_sim_meta_sys.cch")
        for damage in ("nan", "swap"):
            if damage == "nan":
                with open(os.path.join(self.folder, "NQ_sim_fea_sys.cch"), "r+b") as f:
                    f.seek(RECORD + 8)
                    f.write(struct.pack("<f", math.nan))
            else:
                with open(meta) as f:
                    lines = f.read().splitlines()
                lines[3], lines[9] = lines[9], lines[3]
                with open(meta, "w") as f:
                    f.write("\n".join(lines) + "\n")
            r = self.tool("--disable", "recognition,classification", "similar", names[0], "--json")
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertTrue(r.stderr.startswith("fontrix: warning: the similarity cache was damaged ("), r.stderr)
            self.assertTrue(all(math.isfinite(x["score"]) for x in json.loads(r.stdout)["results"]))
            self.assertTrue(os.path.exists(meta + ".damaged"))
            self.assertEqual(sorted(read_cache(self.folder)[0]), sorted(names))  # made again, each font once
            r = self.tool("--disable", "recognition,classification", "similar", names[0])
            self.assertEqual((r.returncode, r.stderr), (0, ""))

    def test_a_damaged_feature_cache_gives_no_class_it_read(self):
        self.assertEqual(self.tool("--disable", "recognition,similarity", "index").returncode, 0)
        path = os.path.join(self.folder, "FontFeatureCache.json")
        with open(path) as f:
            records = json.load(f)
        records[0]["featureValue"] = 4294967295  # every class
        with open(path, "w") as f:
            json.dump(records, f)
        r = self.tool("--disable", "recognition,similarity", "classes", "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("fontrix: warning: the feature cache " + path + " was damaged", r.stderr)
        font = next(f for f in json.loads(r.stdout)["fonts"] if f["name"] == records[0]["name"])
        self.assertLess(len(font["classes"]), 8)

    def test_damaged_recognition_files_are_said_and_recognition_goes_on(self):
        """A lines file cut short is read again and written over; a damaged confidence model is a
        warning, and the answers come without a confidence."""
        picture = os.path.join(self.data, "samples", "line-liberation-serif-bold.png")
        self.assertEqual(self.tool("--disable", "classification", "index").returncode, 0)
        lines = os.path.join(self.folder, "FontRecognitionLines.bin")
        size = os.path.getsize(lines)
        os.truncate(lines, size // 2)
        r = self.tool("--disable", "classification", "recognize", picture, "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(os.path.getsize(lines), size)  # drawn again, whole
        self.assertIn("likeness", json.loads(r.stdout)["results"][0])
        model = os.path.join(self.data, "recognition_confidence.tsv")
        with open(model, "a") as f:
            f.write("with_lines\tbias\t0\n")
        r = self.tool("--disable", "classification", "recognize", picture, "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("fontrix: warning: " + model + " line ", r.stderr)
        answer = json.loads(r.stdout)
        self.assertNotIn("sure", answer)
        self.assertTrue(answer["results"] and not any("confidence" in x for x in answer["results"]))

    def test_folders_where_files_should_be_are_said_and_crash_nothing(self):
        """A folder in the place of the confidence model or of the kept lines: recognition still
        answers, says why, and index fails because what it drew could not be kept."""
        picture = os.path.join(self.data, "samples", "line-liberation-serif-bold.png")
        model = os.path.join(self.data, "recognition_confidence.tsv")
        os.remove(model)
        os.mkdir(model)
        r = self.tool("--disable", "classification", "recognize", picture, "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("fontrix: warning: " + model + " is a folder, not a file", r.stderr)
        self.assertTrue(json.loads(r.stdout)["results"])
        lines = os.path.join(self.folder, "FontRecognitionLines.bin")
        os.remove(lines)
        os.mkdir(lines)
        r = self.tool("--disable", "classification", "index")
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertIn("the installed fonts' lines were not saved", r.stderr)

    def test_lost_check_sums_trust_no_entry_and_are_written_again(self):
        """Without its sums file the similarity cache cannot tell swapped names: its entries are
        computed again, and the sums are there once more."""
        args = ("--disable", "recognition,classification")
        self.assertEqual(self.tool(*args, "index").returncode, 0)
        names, data = read_cache(self.folder)
        if len(names) < 2:
            self.skipTest("fewer than two installed fonts outside the shipped table")
        before = json.loads(self.tool(*args, "similar", names[0], "--json").stdout)["results"]
        meta = os.path.join(self.folder, "NQ_sim_meta_sys.cch")
        with open(meta) as f:
            lines = f.read().splitlines()
        lines[3], lines[9] = lines[9], lines[3]
        with open(meta, "w") as f:
            f.write("\n".join(lines) + "\n")
        os.remove(os.path.join(self.folder, "NQ_sim_sums_sys.cch"))
        with open(os.path.join(self.folder, "NQ_sim_sums_sys.cch.tmp"), "w") as f:
            f.write("left by a save that was killed\n")
        r = self.tool(*args, "similar", names[0], "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("had no check sum", r.stderr)
        self.assertEqual(json.loads(r.stdout)["results"], before)
        self.assertEqual(sorted(read_cache(self.folder)[0]), sorted(names))
        self.assertFalse(os.path.exists(os.path.join(self.folder, "NQ_sim_sums_sys.cch.tmp")))
        r = self.tool(*args, "similar", names[0])
        self.assertEqual((r.returncode, r.stderr), (0, ""))

    def test_a_held_folder_is_said_with_whom_it_waits_for(self):
        """Another process holding the cache folder: the command says whom it waits for at once,
        then answers when the folder is let go."""
        self.assertEqual(self.tool("--disable", "recognition", "index").returncode, 0)
        holder = subprocess.Popen(["/usr/bin/python3", "-c", HOLD_LOCK, self.folder, "3"], stdout=subprocess.PIPE,
                                  text=True)
        self.assertEqual(holder.stdout.readline(), "held\n")
        r = self.tool("--disable", "recognition", "similar", "DejaVuSerif", "--limit", "1")
        holder.wait(timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, "fontrix: waiting for another fontrix (pid %d) to finish with the cache folder %s\n"
                         % (holder.pid, self.folder))
        self.assertTrue(r.stdout)

    def test_a_feature_cache_in_another_order_is_not_measured_again(self):
        self.assertEqual(self.tool("--disable", "recognition,similarity", "index").returncode, 0)
        path = os.path.join(self.folder, "FontFeatureCache.json")
        with open(path) as f:
            records = json.load(f)
        with open(path, "w") as f:
            json.dump(records[::-1], f)
        r = self.tool("--disable", "recognition,similarity", "index", "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(json.loads(r.stdout)["services"][0]["computed"], 0)
        with open(path) as f:
            self.assertEqual(len(json.load(f)), len(records))

    def test_shipped_data_that_cannot_be_used_fails_naming_the_file(self):
        table = os.path.join(self.data, "NQ_rec_font.bin")
        with open(table) as f:
            lines = f.read().splitlines(keepends=True)
        with open(table, "w") as f:
            f.writelines(lines[:-60])  # ten fonts fewer than the network's classes
        picture = os.path.join(self.data, "samples", "line-liberation-serif-bold.png")
        r = self.tool("recognize", picture)
        self.assertEqual(r.returncode, 1)
        self.assertIn("fontrix: the recognition font table " + table + " lists", r.stderr)
        model = os.path.join(self.data, "NQ_sim_model.dnm")
        os.truncate(model, 1000)
        for args in (["similar", "DejaVuSans"], ["index"]):
            r = self.tool("--disable", "recognition", *args)
            self.assertEqual(r.returncode, 1, args)
            self.assertIn("fontrix: the similarity model " + model + " cannot be used: ", r.stderr)

    def test_processes_indexing_one_folder_at_once_leave_each_font_once(self):
        command = [shipped_data_tool.FONTRIX, "--module", shipped_data_tool.MODULE, "--data-dir", self.data,
                   "--cache-dir", self.folder, "--disable", "recognition", "index", "--json"]
        runs = [subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.env)
                for _ in range(3)]
        for run in runs:
            out, err = run.communicate(timeout=900)
            # A process may wait for another's save, and says so; nothing else is said.
            said = [line for line in err.splitlines() if not line.startswith("fontrix: waiting for another fontrix")]
            self.assertEqual((run.returncode, said), (0, []), err)
        names, _ = read_cache(self.folder)
        self.assertEqual(len(names), len(set(names)))
        with open(os.path.join(self.folder, "FontFeatureCache.json")) as f:
            classified = [r["name"] for r in json.load(f)]
        fonts = json.loads(self.tool("fonts", "--json").stdout)["fonts"]
        self.assertEqual(sorted(classified), sorted(f["name"] for f in fonts))
        again = json.loads(self.tool("--disable", "recognition", "index", "--json").stdout)["services"]
        self.assertEqual([s["computed"] for s in again[:2]], [0, 0])


if __name__ == "__main__":
    main()
