"""The check sum the module's caches and data files carry (shell/check_sum.cpp), written out
again for the files made here and the fuzz seeds."""

MASK = (1 << 64) - 1
P1, P2, P3 = 0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9


def check_sum(data, seed=0):
    """The caches' check sum (shell/check_sum.cpp), written out again."""
    def rotate(x, r):
        return ((x << r) | (x >> (64 - r))) & MASK

    def step(lane, word):
        return (rotate((lane + word * P2) & MASK, 31) * P1) & MASK

    def word(at):
        return int.from_bytes(data[at:at + 8], "little")
    lanes = [(seed + P1 + P2) & MASK, (seed + P2) & MASK, seed & MASK, (seed - P1) & MASK]
    at, n = 0, len(data)
    while n - at >= 32:
        lanes = [step(lanes[k], word(at + 8 * k)) for k in range(4)]
        at += 32
    h = (rotate(lanes[0], 1) + rotate(lanes[1], 7) + rotate(lanes[2], 12) + rotate(lanes[3], 18)) & MASK
    for lane in lanes:
        h = ((h ^ step(0, lane)) * P1 + P3) & MASK
    h = (h + n) & MASK
    while n - at >= 8:
        h = (rotate(h ^ step(0, word(at)), 27) * P1 + P3) & MASK
        at += 8
    for byte in data[at:]:
        h = (rotate(h ^ ((byte * P3) & MASK), 11) * P1) & MASK
    h ^= h >> 33
    h = (h * P2) & MASK
    h ^= h >> 29
    h = (h * P3) & MASK
    return h ^ (h >> 32)
