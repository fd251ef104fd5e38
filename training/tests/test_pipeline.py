"""The pipeline's stage table and its staleness: stub stages in a temporary work folder."""
import contextlib
import io
import json
import os
import sys
import tempfile
import unittest
import unittest.mock

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from fontrix_training import pipeline  # noqa: E402


def stub(name, inputs, outputs, text):
    """A stage whose one command writes `text` into its first output."""
    return pipeline.Stage(name, "a stub", [[sys.executable, "-c", "import sys; print(sys.argv[1])", text, ">",
                                            outputs[0]]], inputs, outputs)


class Staleness(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.work = self.folder.name
        self.addCleanup(self.folder.cleanup)

    def make(self, stages):
        return pipeline.Pipeline(stages, work=self.work, data=os.path.join(self.work, "data"))

    def run_stage(self, p, name, force=False):
        with contextlib.redirect_stdout(io.StringIO()) as out:
            ran = p.run(name, force=force, out=out)
        return ran

    def test_a_stage_runs_once_and_again_only_when_its_settings_inputs_or_outputs_change(self):
        stages = [stub("a", [], ["{work}/a.txt"], "one"), stub("b", ["{work}/a.txt"], ["{data}/b.txt"], "two")]
        p = self.make(stages)
        self.assertIn("never run", p.why_stale("a"))
        self.assertTrue(self.run_stage(p, "a"))
        self.assertTrue(self.run_stage(p, "b"))
        with open(os.path.join(self.work, "data", "b.txt")) as f:
            self.assertEqual(f.read(), "two\n")
        self.assertFalse(self.run_stage(p, "a"))
        self.assertFalse(self.run_stage(p, "b"))
        self.assertTrue(self.run_stage(p, "b", force=True))

        # The first stage rerun with the same output leaves the second current; other contents do not.
        self.assertTrue(self.run_stage(p, "a", force=True))
        self.assertIsNone(p.why_stale("b"))
        with open(os.path.join(self.work, "a.txt"), "w") as f:
            f.write("edited\n")
        self.assertEqual(p.why_stale("b"), "input changed: " + os.path.join(self.work, "a.txt"))

        # Other settings make the stage stale; so does a missing output or another data folder.
        changed = self.make([stages[0], stub("b", ["{work}/a.txt"], ["{data}/b.txt"], "three")])
        self.assertEqual(changed.why_stale("b"), "its settings changed")
        self.run_stage(p, "b")
        os.unlink(os.path.join(self.work, "data", "b.txt"))
        self.assertIn("output missing", p.why_stale("b"))
        self.run_stage(p, "b")
        elsewhere = pipeline.Pipeline(stages, work=self.work, data=os.path.join(self.work, "other"))
        self.assertIn("wrote into", elsewhere.why_stale("b"))

    def test_a_failed_command_leaves_no_stamp_and_globbed_inputs_count(self):
        failing = pipeline.Stage("f", "fails", [[sys.executable, "-c", "raise SystemExit(3)"]],
                                 ["{work}/in-*.npz"], ["{work}/never"])
        p = self.make([failing])
        with self.assertRaises(Exception), contextlib.redirect_stdout(io.StringIO()):
            p.run("f", out=io.StringIO())
        self.assertFalse(os.path.exists(p.stamp_path("f")))
        with open(os.path.join(self.work, "in-1.npz"), "w") as f:
            f.write("x")
        open(os.path.join(self.work, "never"), "w").close()
        p.stamp("f")
        self.assertIsNone(p.why_stale("f"))
        with open(os.path.join(self.work, "in-2.npz"), "w") as f:
            f.write("y")
        self.assertIn("in-2.npz", p.why_stale("f"))

    def test_stamp_records_a_stage_made_by_hand_and_refuses_one_without_outputs(self):
        stages = [stub("a", [], ["{work}/a.txt"], "one")]
        with contextlib.redirect_stdout(io.StringIO()), contextlib.redirect_stderr(io.StringIO()):
            with self.assertRaises(SystemExit):
                pipeline.main(["stamp", "a", "--work", self.work], stages)
            open(os.path.join(self.work, "a.txt"), "w").close()
            pipeline.main(["stamp", "a", "--work", self.work], stages)
        with open(os.path.join(self.work, "stamps", "a.json")) as f:
            self.assertEqual(json.load(f)["inputs"], {})


class ShippedStages(unittest.TestCase):
    def test_every_input_is_checked_in_or_made_by_an_earlier_stage(self):
        made = set()
        for stage in pipeline.STAGES:
            for word in stage.inputs:
                if not word.startswith("{training}/"):
                    self.assertIn(word, made, f"{stage.name} reads {word}, which no earlier stage makes")
            made.update(stage.outputs)
        names = [s.name for s in pipeline.STAGES]
        self.assertEqual(len(names), len(set(names)))

    def test_each_training_run_starts_from_the_stage_before_it(self):
        chain = {s.name: s for s in pipeline.STAGES}
        for stage, start in (("stage2", "stage1"), ("stage3", "stage2"), ("stage4", "stage3"), ("stage5", "stage4"),
                             ("simteach1", "simfamily"), ("simteach2", "simteach1"), ("simkind", "simteach2")):
            words = chain[stage].commands[0]
            init = words[words.index("--init") + 1]
            self.assertIn(init, chain[start].outputs, stage)

    def test_every_module_a_stage_runs_is_one_of_the_package_and_runs_from_any_folder(self):
        """A stage's command `python3 -m fontrix_training.X` needs no path of the caller's: the
        pipeline puts the package's folder on it, and each module runs as __main__."""
        import importlib.util
        for stage in pipeline.STAGES:
            for words in stage.commands:
                if "-m" in words:
                    module = words[words.index("-m") + 1]
                    self.assertIsNotNone(importlib.util.find_spec(module), f"{stage.name}: {module}")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        p = pipeline.Pipeline([pipeline.Stage("help", "a module's help", [
            pipeline.py("corpus.fetch", "--help", ">", "{work}/help.txt")], [], ["{work}/help.txt"])],
            work=folder.name, data=os.path.join(folder.name, "data"))
        outside = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
        with unittest.mock.patch.dict(os.environ, outside, clear=True), contextlib.redirect_stdout(io.StringIO()):
            self.assertTrue(p.run("help"))
        with open(os.path.join(folder.name, "help.txt")) as f:
            self.assertIn("usage:", f.read())


if __name__ == "__main__":
    unittest.main()
