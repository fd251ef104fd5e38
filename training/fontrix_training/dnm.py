"""Reader and writer for deepnet model files (.dnm).

A file is a little-endian header (magic "DNMF", version 1, reserved 0,
layer count) followed by one length-prefixed record per layer. Layers are
plain Python objects; weights are numpy float32 arrays. torch is only needed
by the *_from_torch / fold_batchnorm helpers and is imported lazily.
"""

import struct

import numpy as np

MAGIC = 0x464D4E44  # b"DNMF"
VERSION = 1

TYPE_DATA = 0
TYPE_CONV = 1
TYPE_FC = 3
TYPE_LRN = 4
TYPE_MAXPOOL = 5
TYPE_AVGPOOL = 6
TYPE_ACTIVATION = 7
TYPE_CONCAT = 10
TYPE_SOFTMAX = 16
TYPE_LOGLOSS = 17

ACTIVATION_RELU = 0

_U32_MAX = 0xFFFFFFFF


# ---------------------------------------------------------------------------
# Shape rules shared with the engine


def conv_output_extent(size, kernel, stride, pad_begin=0, pad_end=0, ceil_mode=False):
    """Output extent of a convolution along one axis."""
    span = size + pad_begin + pad_end - kernel
    if span < 0:
        raise ValueError("kernel %d larger than padded input %d" % (kernel, span + kernel))
    out = span // stride + 1
    if ceil_mode and span % stride:
        out += 1
    return out


def pool_output_extent(size, kernel, stride, pad_begin=0, pad_end=0):
    """Output extent of a pooling layer along one axis (always rounds up)."""
    return conv_output_extent(size, kernel, stride, pad_begin, pad_end, ceil_mode=True)


# ---------------------------------------------------------------------------
# Layers


def _f32(values, what):
    arr = np.asarray(values, dtype=np.float32)
    if not np.all(np.isfinite(arr)):
        raise ValueError("%s contains non-finite values" % what)
    return arr


def _arrays_equal(a, b):
    return a.size == b.size and np.array_equal(a.ravel(), b.ravel())


class Layer:
    """Base class: a named layer reading from earlier layers by name."""

    type_code = None
    _fields = ()     # scalar fields compared by __eq__
    _arrays = ()     # numpy-array fields compared by flattened value

    def __init__(self, name, inputs):
        self.name = name
        self.inputs = list(inputs)

    def __eq__(self, other):
        if type(self) is not type(other):
            return NotImplemented
        if (self.name, self.inputs) != (other.name, other.inputs):
            return False
        if any(getattr(self, f) != getattr(other, f) for f in self._fields):
            return False
        return all(_arrays_equal(getattr(self, a), getattr(other, a)) for a in self._arrays)

    def __repr__(self):
        parts = ["%r" % self.name, "inputs=%r" % self.inputs]
        parts += ["%s=%r" % (f, getattr(self, f)) for f in self._fields]
        parts += ["%s=<%d floats>" % (a, getattr(self, a).size) for a in self._arrays]
        return "%s(%s)" % (type(self).__name__, ", ".join(parts))

    def expected_input_count(self):
        """Number of inputs this type takes, or None for one or more."""
        return 1

    def validate(self):
        """Raise ValueError if fields and arrays disagree."""

    def payload(self):
        """Type-specific bytes following the input names."""
        return b""


class Data(Layer):
    """Network input: images (W x H x C) or, with is_1d, labels."""

    type_code = TYPE_DATA
    _fields = ("is_1d",)

    def __init__(self, name, is_1d=False):
        super().__init__(name, [])
        self.is_1d = bool(is_1d)

    def expected_input_count(self):
        return 0

    def payload(self):
        return _u32s(1 if self.is_1d else 0)


class Conv(Layer):
    """2-D convolution. weights: (num_output, num_input/group, kernel_h, kernel_w)
    as in torch.nn.Conv2d, or the same values flattened."""

    type_code = TYPE_CONV
    _fields = ("ceil_mode", "num_output", "group", "kernel_w", "kernel_h",
               "num_input", "stride_w", "stride_h", "pad_w_begin", "pad_w_end",
               "pad_h_begin", "pad_h_end")
    _arrays = ("weights", "biases")

    def __init__(self, name, input, weights, biases, *, num_input, num_output,
                 kernel_w, kernel_h, stride_w=1, stride_h=1, pad_w_begin=0,
                 pad_w_end=0, pad_h_begin=0, pad_h_end=0, group=1, ceil_mode=False):
        super().__init__(name, [input])
        self.weights = _f32(weights, "%s weights" % name)
        self.biases = _f32(biases, "%s biases" % name)
        self.num_input = num_input
        self.num_output = num_output
        self.kernel_w = kernel_w
        self.kernel_h = kernel_h
        self.stride_w = stride_w
        self.stride_h = stride_h
        self.pad_w_begin = pad_w_begin
        self.pad_w_end = pad_w_end
        self.pad_h_begin = pad_h_begin
        self.pad_h_end = pad_h_end
        self.group = group
        self.ceil_mode = bool(ceil_mode)

    def validate(self):
        for f in ("num_input", "num_output", "kernel_w", "kernel_h",
                  "stride_w", "stride_h", "group"):
            if getattr(self, f) < 1:
                raise ValueError("conv %r: %s must be positive" % (self.name, f))
        if self.num_input % self.group or self.num_output % self.group:
            raise ValueError("conv %r: group %d does not divide num_input %d and num_output %d"
                             % (self.name, self.group, self.num_input, self.num_output))
        shape = (self.num_output, self.num_input // self.group, self.kernel_h, self.kernel_w)
        w = self.weights
        if (w.ndim == 1 and w.size != int(np.prod(shape))) or (w.ndim != 1 and w.shape != shape):
            raise ValueError("conv %r: weights have shape %s, expected %s (O, C/G, kh, kw)"
                             % (self.name, w.shape, shape))
        if self.biases.size != self.num_output:
            raise ValueError("conv %r: %d biases for %d outputs"
                             % (self.name, self.biases.size, self.num_output))

    def payload(self):
        return (_u32s(int(self.ceil_mode), *(getattr(self, f) for f in self._fields[1:]))
                + _floats(self.weights) + _floats(self.biases))


class FullyConnected(Layer):
    """Inner product over one or more inputs, each flattened per sample.

    weights: one array per input of shape (num_output, input_sizes[k]) (or
    flat), or a single 1-D array holding those blocks back to back. Note a
    torch Linear over concatenated inputs must be split by columns; use
    fc_from_torch for that.
    """

    type_code = TYPE_FC
    _fields = ("input_sizes", "num_output")
    _arrays = ("weights", "biases")

    def __init__(self, name, inputs, input_sizes, num_output, weights, biases):
        if isinstance(inputs, str):
            inputs = [inputs]
        super().__init__(name, inputs)
        self.input_sizes = [int(s) for s in input_sizes]
        self.num_output = num_output
        if isinstance(weights, (list, tuple)):
            blocks = [_f32(w, "%s weights" % name) for w in weights]
            if len(blocks) != len(self.input_sizes):
                raise ValueError("fc %r: %d weight blocks for %d inputs"
                                 % (name, len(blocks), len(self.input_sizes)))
            for k, (b, size) in enumerate(zip(blocks, self.input_sizes)):
                if b.size != size * num_output or (b.ndim == 2 and b.shape != (num_output, size)):
                    raise ValueError("fc %r: weight block %d has shape %s, expected (%d, %d)"
                                     % (name, k, b.shape, num_output, size))
            self.weights = np.concatenate([b.ravel() for b in blocks]) if blocks else np.zeros(0, np.float32)
        else:
            w = _f32(weights, "%s weights" % name)
            if w.ndim != 1 and len(self.input_sizes) != 1:
                raise ValueError("fc %r: pass one weight block per input (or a flat array)" % name)
            self.weights = w
        self.biases = _f32(biases, "%s biases" % name)

    def weight_blocks(self):
        """Per-input weight matrices of shape (num_output, input_sizes[k])."""
        flat = self.weights.ravel()
        out, pos = [], 0
        for size in self.input_sizes:
            out.append(flat[pos:pos + size * self.num_output].reshape(self.num_output, size))
            pos += size * self.num_output
        return out

    def expected_input_count(self):
        return None

    def validate(self):
        if len(self.input_sizes) != len(self.inputs):
            raise ValueError("fc %r: %d input sizes for %d inputs"
                             % (self.name, len(self.input_sizes), len(self.inputs)))
        if self.num_output < 1 or any(s < 1 for s in self.input_sizes):
            raise ValueError("fc %r: sizes must be positive" % self.name)
        expected = sum(self.input_sizes) * self.num_output
        if self.weights.size != expected:
            raise ValueError("fc %r: %d weights, expected %d (sum(input_sizes) * num_output)"
                             % (self.name, self.weights.size, expected))
        if self.weights.ndim == 2 and self.weights.shape != (self.num_output, self.input_sizes[0]):
            raise ValueError("fc %r: weights have shape %s, expected %s"
                             % (self.name, self.weights.shape, (self.num_output, self.input_sizes[0])))
        if self.biases.size != self.num_output:
            raise ValueError("fc %r: %d biases for %d outputs"
                             % (self.name, self.biases.size, self.num_output))

    def payload(self):
        return (_u32s(*self.input_sizes, self.num_output)
                + _floats(self.weights) + _floats(self.biases))


class LRN(Layer):
    """Local response normalisation across channels
    (torch.nn.LocalResponseNorm(local_size, alpha, beta, k) for odd sizes)."""

    type_code = TYPE_LRN
    _fields = ("local_size", "k", "alpha", "beta")

    def __init__(self, name, input, local_size, alpha, beta, k):
        super().__init__(name, [input])
        # Stored as f32 in the file; round now so read-back compares equal.
        self.local_size = local_size
        self.alpha = float(np.float32(alpha))
        self.beta = float(np.float32(beta))
        self.k = float(np.float32(k))

    def validate(self):
        if self.local_size < 1:
            raise ValueError("lrn %r: local_size must be positive" % self.name)
        if not all(np.isfinite([self.alpha, self.beta, self.k])):
            raise ValueError("lrn %r: non-finite parameter" % self.name)

    def payload(self):
        return _u32s(self.local_size) + struct.pack("<3f", self.k, self.alpha, self.beta)


class _Pool(Layer):
    _fields = ("kernel_w", "kernel_h", "stride_w", "stride_h", "pad_w_begin",
               "pad_w_end", "pad_h_begin", "pad_h_end")

    def __init__(self, name, input, kernel_w, kernel_h, stride_w=None, stride_h=None,
                 pad_w_begin=0, pad_w_end=0, pad_h_begin=0, pad_h_end=0):
        super().__init__(name, [input])
        self.kernel_w = kernel_w
        self.kernel_h = kernel_h
        self.stride_w = kernel_w if stride_w is None else stride_w
        self.stride_h = kernel_h if stride_h is None else stride_h
        self.pad_w_begin = pad_w_begin
        self.pad_w_end = pad_w_end
        self.pad_h_begin = pad_h_begin
        self.pad_h_end = pad_h_end

    def validate(self):
        for f in ("kernel_w", "kernel_h", "stride_w", "stride_h"):
            if getattr(self, f) < 1:
                raise ValueError("pool %r: %s must be positive" % (self.name, f))

    def payload(self):
        return _u32s(*(getattr(self, f) for f in self._fields))


class MaxPool(_Pool):
    """Max over windows clipped to the input; output extents round up."""
    type_code = TYPE_MAXPOOL


class AvgPool(_Pool):
    """Sum over windows clipped to the input, divided by kernel_w * kernel_h."""
    type_code = TYPE_AVGPOOL


class Activation(Layer):
    type_code = TYPE_ACTIVATION
    _fields = ("activation_type",)

    def __init__(self, name, input, activation_type=ACTIVATION_RELU):
        super().__init__(name, [input])
        self.activation_type = activation_type

    def payload(self):
        return _u32s(self.activation_type)


def ReLU(name, input):
    return Activation(name, input, ACTIVATION_RELU)


class Concat(Layer):
    """Concatenation; axis 0 width, 1 height, 2 channels (0 for 1-D inputs)."""

    type_code = TYPE_CONCAT
    _fields = ("axis",)

    def __init__(self, name, inputs, axis=2):
        super().__init__(name, [inputs] if isinstance(inputs, str) else inputs)
        self.axis = axis

    def expected_input_count(self):
        return None

    def validate(self):
        if self.axis not in (0, 1, 2):
            raise ValueError("concat %r: axis %r is not 0, 1 or 2" % (self.name, self.axis))

    def payload(self):
        return _u32s(self.axis)


class Softmax(Layer):
    type_code = TYPE_SOFTMAX

    def __init__(self, name, input):
        super().__init__(name, [input])


class LogLoss(Layer):
    """Mean -log(prob[label]); inputs are (probabilities, labels)."""

    type_code = TYPE_LOGLOSS

    def __init__(self, name, prob, label):
        super().__init__(name, [prob, label])

    def expected_input_count(self):
        return 2


class UnknownLayer(Layer):
    """A record of a type this module does not know; kept verbatim."""

    _fields = ("type_code", "data")

    def __init__(self, name, inputs, type_code, data):
        super().__init__(name, inputs)
        self.type_code = type_code
        self.data = bytes(data)

    def expected_input_count(self):
        return len(self.inputs)

    def payload(self):
        return self.data


# ---------------------------------------------------------------------------
# Writing


def _u32s(*values):
    for v in values:
        if not isinstance(v, (int, np.integer)):
            raise ValueError("expected an integer, got %r" % (v,))
        if not 0 <= v <= _U32_MAX:
            raise ValueError("value %r does not fit in u32" % (v,))
    return struct.pack("<%dI" % len(values), *(int(v) for v in values))


def _floats(arr):
    return np.ascontiguousarray(arr, dtype="<f4").ravel().tobytes()


def _name(s):
    if not isinstance(s, str) or not s:
        raise ValueError("layer and input names must be non-empty strings, got %r" % (s,))
    b = s.encode("utf-8")
    return _u32s(len(b)) + b


def _validate_model(layers):
    seen = set()
    for i, layer in enumerate(layers):
        if not isinstance(layer, Layer):
            raise ValueError("item %d is not a layer: %r" % (i, layer))
        want = layer.expected_input_count()
        n = len(layer.inputs)
        if (want is None and n < 1) or (want is not None and n != want):
            raise ValueError("layer %r (%s) has %d inputs, expected %s"
                             % (layer.name, type(layer).__name__, n,
                                "at least 1" if want is None else want))
        for inp in layer.inputs:
            if inp not in seen:
                raise ValueError("layer %r: input %r is not an earlier layer" % (layer.name, inp))
        layer.validate()
        seen.add(layer.name)


def model_bytes(layers):
    """Serialise a list of layers; raises ValueError if the model is inconsistent."""
    layers = list(layers)
    _validate_model(layers)
    out = [_u32s(MAGIC, VERSION, 0), struct.pack("<i", len(layers))]
    for layer in layers:
        body = _u32s(layer.type_code) + _name(layer.name) + _u32s(len(layer.inputs))
        body += b"".join(_name(i) for i in layer.inputs) + layer.payload()
        out.append(struct.pack("<Q", len(body)) + body)
    return b"".join(out)


def write_model(path_or_file, layers):
    """Write layers to a path or a binary file object."""
    data = model_bytes(layers)
    if hasattr(path_or_file, "write"):
        path_or_file.write(data)
    else:
        with open(path_or_file, "wb") as f:
            f.write(data)


# ---------------------------------------------------------------------------
# Reading


class _Reader:
    def __init__(self, data, what):
        self.data = data
        self.pos = 0
        self.what = what

    def take(self, n):
        if n > len(self.data) - self.pos:
            raise ValueError("%s: truncated (need %d bytes at offset %d, have %d)"
                             % (self.what, n, self.pos, len(self.data) - self.pos))
        b = self.data[self.pos:self.pos + n]
        self.pos += n
        return b

    def u32(self, count=None):
        if count is None:
            return struct.unpack("<I", self.take(4))[0]
        return list(struct.unpack("<%dI" % count, self.take(4 * count)))

    def f32(self, count):
        return np.frombuffer(self.take(4 * count), dtype="<f4").astype(np.float32)

    def name(self):
        raw = self.take(self.u32())
        try:
            return raw.decode("utf-8")
        except UnicodeDecodeError:
            raise ValueError("%s: name is not utf-8: %r" % (self.what, raw))

    def rest(self):
        return self.take(len(self.data) - self.pos)


def _read_layer(r):
    """One record's layer; inputs are set by the caller exactly as stored."""
    type_code = r.u32()
    name = r.name()
    inputs = [r.name() for _ in range(r.u32())]
    r.what = "layer %r" % name
    if type_code == TYPE_DATA:
        layer = Data(name, is_1d=r.u32() != 0)
    elif type_code == TYPE_CONV:
        (ceil, num_output, group, kw, kh, num_input, sw, sh,
         pwb, pwe, phb, phe) = r.u32(12)
        if group == 0 or num_input % group:
            raise ValueError("conv %r: group %d does not divide %d inputs" % (name, group, num_input))
        weights = r.f32(kh * num_input * kw // group * num_output)
        layer = Conv(name, None, weights, r.f32(num_output), num_input=num_input,
                     num_output=num_output, kernel_w=kw, kernel_h=kh, stride_w=sw,
                     stride_h=sh, pad_w_begin=pwb, pad_w_end=pwe, pad_h_begin=phb,
                     pad_h_end=phe, group=group, ceil_mode=ceil != 0)
    elif type_code == TYPE_FC:
        sizes = r.u32(len(inputs))
        num_output = r.u32()
        weights = r.f32(sum(sizes) * num_output)
        layer = FullyConnected(name, inputs, sizes, num_output, weights, r.f32(num_output))
    elif type_code == TYPE_LRN:
        local_size = r.u32()
        k, alpha, beta = struct.unpack("<3f", r.take(12))
        layer = LRN(name, None, local_size, alpha, beta, k)
    elif type_code in (TYPE_MAXPOOL, TYPE_AVGPOOL):
        cls = MaxPool if type_code == TYPE_MAXPOOL else AvgPool
        layer = cls(name, None, *r.u32(8))
    elif type_code == TYPE_ACTIVATION:
        layer = Activation(name, None, r.u32())
    elif type_code == TYPE_CONCAT:
        layer = Concat(name, inputs, r.u32())
    elif type_code == TYPE_SOFTMAX:
        layer = Softmax(name, None)
    elif type_code == TYPE_LOGLOSS:
        layer = LogLoss(name, None, None)
    else:
        layer = UnknownLayer(name, inputs, type_code, r.rest())
    layer.inputs = inputs
    return layer


def read_model(data, validate=True):
    """Parse .dnm bytes (or a path / binary file object) into a list of layers.

    With validate, also applies the writer's checks (input names, counts)."""
    if isinstance(data, str) or hasattr(data, "__fspath__"):
        with open(data, "rb") as f:
            data = f.read()
    elif hasattr(data, "read"):
        data = data.read()
    data = bytes(data)
    r = _Reader(data, "header")
    magic, version, _reserved = r.u32(3)
    if magic != MAGIC:
        raise ValueError("not a deepnet model (magic %#010x)" % magic)
    if version != VERSION:
        raise ValueError("unsupported model format version %d" % version)
    count = struct.unpack("<i", r.take(4))[0]
    if count < 0:
        raise ValueError("negative layer count %d" % count)
    layers = []
    for i in range(count):
        r.what = "layer record %d" % i
        length = struct.unpack("<Q", r.take(8))[0]
        rec = _Reader(r.take(length), "layer record %d" % i)
        layer = _read_layer(rec)
        if rec.pos != length:
            raise ValueError("layer %r: record length %d but %d bytes used"
                             % (layer.name, length, rec.pos))
        layers.append(layer)
    if r.pos != len(data):
        raise ValueError("%d trailing bytes after the last layer" % (len(data) - r.pos))
    if validate:
        _validate_model(layers)
    return layers


# ---------------------------------------------------------------------------
# torch helpers (torch imported only when these are called)


def _np(t):
    if hasattr(t, "detach"):
        t = t.detach().cpu().numpy()
    return np.asarray(t, dtype=np.float64)


def fold_batchnorm(conv, bn):
    """Weights and biases (numpy float32) of `conv` followed by eval-mode `bn`."""
    if bn.running_mean is None or bn.running_var is None:
        raise ValueError("batch norm has no running statistics to fold")
    w = _np(conv.weight)
    b = _np(conv.bias) if conv.bias is not None else np.zeros(w.shape[0])
    if bn.num_features != w.shape[0]:
        raise ValueError("batch norm has %d features, conv has %d outputs"
                         % (bn.num_features, w.shape[0]))
    scale = 1.0 / np.sqrt(_np(bn.running_var) + bn.eps)
    shift = -_np(bn.running_mean) * scale
    if bn.affine:
        gamma, beta = _np(bn.weight), _np(bn.bias)
        scale, shift = scale * gamma, shift * gamma + beta
    w = w * scale.reshape((-1,) + (1,) * (w.ndim - 1))
    return w.astype(np.float32), (b * scale + shift).astype(np.float32)


def _pair(v):
    return (v, v) if isinstance(v, int) else tuple(v)


def conv_from_torch(name, input, module, bn=None, extra_pad=(0, 0, 0, 0), ceil_mode=False):
    """Conv layer from a torch.nn.Conv2d (optionally followed by BatchNorm2d).

    extra_pad: (w_begin, w_end, h_begin, h_end) zero padding applied before
    the module (F.pad order); added to the module's own padding.
    """
    if isinstance(module.padding, str):
        raise ValueError("conv %r: string padding %r; give explicit padding" % (name, module.padding))
    if _pair(module.dilation) != (1, 1):
        raise ValueError("conv %r: dilation is not supported" % name)
    if getattr(module, "padding_mode", "zeros") != "zeros":
        raise ValueError("conv %r: only zero padding is supported" % name)
    if bn is not None:
        weights, biases = fold_batchnorm(module, bn)
    else:
        weights = _np(module.weight).astype(np.float32)
        biases = (_np(module.bias).astype(np.float32) if module.bias is not None
                  else np.zeros(module.out_channels, np.float32))
    sh, sw = _pair(module.stride)
    ph, pw = _pair(module.padding)
    kh, kw = _pair(module.kernel_size)
    xwb, xwe, xhb, xhe = extra_pad
    return Conv(name, input, weights, biases, num_input=module.in_channels,
                num_output=module.out_channels, kernel_w=kw, kernel_h=kh,
                stride_w=sw, stride_h=sh, pad_w_begin=pw + xwb, pad_w_end=pw + xwe,
                pad_h_begin=ph + xhb, pad_h_end=ph + xhe, group=module.groups,
                ceil_mode=ceil_mode)


def fc_from_torch(name, inputs, module, input_sizes=None):
    """FullyConnected from a torch.nn.Linear applied to the per-sample
    flattened inputs concatenated in order; splits the weight by columns."""
    if isinstance(inputs, str):
        inputs = [inputs]
    w = _np(module.weight).astype(np.float32)
    if input_sizes is None:
        if len(inputs) != 1:
            raise ValueError("fc %r: input_sizes needed for several inputs" % name)
        input_sizes = [w.shape[1]]
    if sum(input_sizes) != w.shape[1]:
        raise ValueError("fc %r: input sizes sum to %d, Linear takes %d"
                         % (name, sum(input_sizes), w.shape[1]))
    offsets = np.cumsum([0] + list(input_sizes))
    blocks = [w[:, offsets[k]:offsets[k + 1]] for k in range(len(input_sizes))]
    biases = (_np(module.bias).astype(np.float32) if module.bias is not None
              else np.zeros(w.shape[0], np.float32))
    return FullyConnected(name, inputs, input_sizes, w.shape[0], blocks, biases)


def lrn_from_torch(name, input, module):
    """LRN layer from torch.nn.LocalResponseNorm (odd sizes match exactly)."""
    if module.size % 2 == 0:
        raise ValueError("lrn %r: even size %d has a different window in torch" % (name, module.size))
    return LRN(name, input, module.size, module.alpha, module.beta, module.k)
