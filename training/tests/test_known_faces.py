"""The known faces' data maker: the packed vectors it writes are what the module reads, and the
check sum it writes them with is the module's."""
import struct
import unittest

import numpy as np

from fontrix_training import make_known_faces
from fontrix_training.check_sum import check_sum


class CheckSumTest(unittest.TestCase):
    def test_keeps_the_values_the_module_has(self):
        # The same values tests/shell/check_sum_test.cpp holds the C++ rules to.
        self.assertEqual(check_sum(b""), 0x385e2446a0b0d829)
        self.assertEqual(check_sum(b"Serif-Book\0"), 0x6c20b39d4ada56ee)
        self.assertEqual(check_sum(bytes((i * 37 + 11) & 0xFF for i in range(100)), 12345), 0xff1c6afb4d8448e5)


class PackedVectorsTest(unittest.TestCase):
    def test_round_trip_keeps_dot_products(self):
        rng = np.random.default_rng(3)
        rows = rng.random((50, 384)).astype("<f4")
        rows /= np.linalg.norm(rows, axis=1, keepdims=True)
        data = make_known_faces.pack(rows, 0x1234)
        self.assertEqual(len(data), 32 + 50 * 384 * 2)
        again, network = make_known_faces.unpack(data)
        self.assertEqual(network, 0x1234)
        self.assertLess(np.abs(again @ rows.T - rows @ rows.T).max(), 1e-3)

    def test_values_outside_the_range_are_clipped_not_wrapped(self):
        again, _ = make_known_faces.unpack(make_known_faces.pack(np.array([[1.5, -2.0, 0.5]]), 0))
        np.testing.assert_allclose(again[0], [1.0, -1.0, 0.5], atol=1e-4)

    def test_a_changed_value_is_found(self):
        data = bytearray(make_known_faces.pack(np.full((2, 4), 0.5), 7))
        data[-1] ^= 1
        with self.assertRaises(ValueError):
            make_known_faces.unpack(bytes(data))
        self.assertEqual(struct.unpack_from("<II", data, 8), (2, 4))


if __name__ == "__main__":
    unittest.main()
