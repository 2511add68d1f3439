#!/usr/bin/python3
"""Runs an ONNX graph the slow, literal way (numpy, node by node, If branches and ONNX LSTM
semantics as the operator set defines them) to check our own forward pass against.

usage: silero_reference.py MODEL SAMPLES.f32 > probabilities.txt
SAMPLES.f32 is 16 kHz mono float32; each 512-sample chunk goes in with the 64 samples before
it and the state of the previous chunk, as the classifier does it.
"""
import struct
import sys

import numpy as np


def varint(b, i):
    r = s = 0
    while True:
        c = b[i]
        i += 1
        r |= (c & 0x7F) << s
        s += 7
        if c < 0x80:
            return r, i


def fields(b):
    i, out = 0, []
    while i < len(b):
        k, i = varint(b, i)
        f, w = k >> 3, k & 7
        if w == 0:
            v, i = varint(b, i)
        elif w == 1:
            v, i = b[i:i + 8], i + 8
        elif w == 5:
            v, i = b[i:i + 4], i + 4
        elif w == 2:
            n, i = varint(b, i)
            v, i = b[i:i + n], i + n
        else:
            raise ValueError("wire type %d" % w)
        out.append((f, v))
    return out


def signed(v):
    return v - (1 << 64) if v >= 1 << 63 else v


def ints(vals):
    out = []
    for v in vals:
        if isinstance(v, int):
            out.append(signed(v))
        else:
            j = 0
            while j < len(v):
                x, j = varint(v, j)
                out.append(signed(x))
    return out


TYPES = {1: np.float32, 6: np.int32, 7: np.int64, 9: np.bool_, 11: np.float64}


def tensor(b):
    fs = fields(b)
    dims = ints([v for f, v in fs if f == 1])
    dt = TYPES[[v for f, v in fs if f == 2][0]]
    raw = [v for f, v in fs if f == 9]
    if raw:
        arr = np.frombuffer(raw[0], dtype=dt)
    elif dt == np.float32:
        arr = np.frombuffer(b"".join(v for f, v in fs if f == 4), dtype=np.float32)
    else:
        arr = np.array(ints([v for f, v in fs if f in (5, 7)]), dtype=dt)
    return arr.reshape(dims).copy()


def attrs(node_fields):
    out = {}
    for f, v in node_fields:
        if f != 5:
            continue
        af = fields(v)
        name = [x for g, x in af if g == 1][0].decode()
        for g, x in af:
            if g == 2:
                out[name] = struct.unpack("<f", x)[0]
            elif g == 3:
                out[name] = signed(x)
            elif g == 4:
                out[name] = x.decode()
            elif g == 5:
                out[name] = tensor(x)
            elif g == 6:
                out[name] = x
            elif g == 8:
                out.setdefault(name, []).extend(ints([x]))
    return out


def lstm(x, W, R, B, h, c):
    hidden = R.shape[-1]
    Wb, Rb = (B[0, :4 * hidden], B[0, 4 * hidden:]) if B is not None else (0, 0)
    ys = []
    h, c = h[0], c[0]
    for t in range(x.shape[0]):
        g = x[t] @ W[0].T + Wb + h @ R[0].T + Rb
        i, o, f, cc = np.split(g, 4, axis=-1)  # ONNX gate order: input, output, forget, cell
        sig = lambda z: 1 / (1 + np.exp(-z))
        c = sig(f) * c + sig(i) * np.tanh(cc)
        h = sig(o) * np.tanh(c)
        ys.append(h)
    return np.stack(ys)[:, None], h[None], c[None]


def conv1d(x, w, b, a):
    stride, pads = a.get("strides", [1])[0], a.get("pads", [0, 0])
    x = np.pad(x, ((0, 0), (0, 0), (pads[0], pads[1])))
    k = w.shape[2]
    n = (x.shape[2] - k) // stride + 1
    out = np.zeros((x.shape[0], w.shape[0], n), dtype=np.float64)
    for t in range(n):
        out[:, :, t] = np.einsum("bik,oik->bo", x[:, :, t * stride:t * stride + k].astype(np.float64), w)
    if b is not None:
        out += b[None, :, None]
    return out.astype(np.float32)


def slice_(x, starts, ends, axes=None, steps=None):
    axes = range(len(starts)) if axes is None else axes
    steps = [1] * len(starts) if steps is None else steps
    idx = [slice(None)] * x.ndim
    for s, e, a, st in zip(starts, ends, axes, steps):
        idx[int(a)] = slice(int(s), None if (st < 0 and e < -x.shape[a]) else int(e), int(st))
    return x[tuple(idx)]


def run(graph_bytes, env):
    env = dict(env)
    gf = fields(graph_bytes)
    for f, v in gf:
        if f == 5:
            t = tensor(v)
            env[[x for g, x in fields(v) if g == 8][0].decode()] = t
    for f, v in gf:
        if f != 1:
            continue
        nf = fields(v)
        ins = [x.decode() for g, x in nf if g == 1]
        outs = [x.decode() for g, x in nf if g == 2]
        op = [x.decode() for g, x in nf if g == 4][0]
        a = attrs(nf)
        I = [env[n] if n else None for n in ins]
        if op == "Constant":
            r = [a["value"]]
        elif op == "If":
            branch = a["then_branch"] if bool(np.asarray(I[0]).reshape(-1)[0]) else a["else_branch"]
            sub = run(branch, env)
            r = [sub[n] for n in outputs(branch)]
        elif op == "Equal":
            r = [np.equal(I[0], I[1])]
        elif op == "Not":
            r = [np.logical_not(I[0])]
        elif op == "ConstantOfShape":
            v = a.get("value", np.zeros(1, np.float32))
            r = [np.full(tuple(I[0]), v.reshape(-1)[0], dtype=v.dtype)]
        elif op == "Concat":
            r = [np.concatenate(I, axis=a["axis"])]
        elif op == "Reshape":
            r = [I[0].reshape(tuple(I[1]))]
        elif op == "Slice":
            r = [slice_(I[0], *[list(x) if x is not None else None for x in I[1:]])]
        elif op == "Transpose":
            r = [np.transpose(I[0], a.get("perm"))]
        elif op == "Cast":
            r = [I[0].astype(TYPES[a["to"]])]
        elif op == "Pad":
            p = list(I[1])
            n = len(p) // 2
            assert a.get("mode") == "reflect"
            r = [np.pad(I[0], [(p[i], p[i + n]) for i in range(n)], mode="reflect")]
        elif op == "Unsqueeze":
            x = I[0]
            for ax in sorted(int(v) % (x.ndim + 1) for v in I[1]):
                x = np.expand_dims(x, ax)
            r = [x]
        elif op == "Squeeze":
            r = [np.squeeze(I[0], axis=tuple(int(v) for v in I[1])) if len(I) > 1 else np.squeeze(I[0])]
        elif op == "Conv":
            r = [conv1d(I[0], I[1], I[2] if len(I) > 2 else None, a)]
        elif op == "Pow":
            r = [np.power(I[0], I[1]).astype(I[0].dtype)]
        elif op == "Add":
            r = [I[0] + I[1]]
        elif op == "Sqrt":
            r = [np.sqrt(I[0])]
        elif op == "Relu":
            r = [np.maximum(I[0], 0)]
        elif op == "Sigmoid":
            r = [(1 / (1 + np.exp(-I[0]))).astype(np.float32)]
        elif op == "Shape":
            r = [np.array(I[0].shape, dtype=np.int64)]
        elif op == "Size":
            r = [np.array(I[0].size, dtype=np.int64)]
        elif op == "Gather":
            r = [np.take(I[0], I[1], axis=a.get("axis", 0))]
        elif op == "Identity":
            r = [I[0]]
        elif op == "ReduceMean":
            r = [np.mean(I[0], axis=tuple(a["axes"]), keepdims=bool(a.get("keepdims", 1)))]
        elif op == "LSTM":
            y, yh, yc = lstm(I[0], I[1], I[2], I[3], I[5], I[6])
            r = [y, yh, yc]
        else:
            raise NotImplementedError(op)
        for n, val in zip(outs, r):
            if n:
                env[n] = val
    return env


def outputs(graph_bytes):
    return [[x for g, x in fields(v) if g == 1][0].decode() for f, v in fields(graph_bytes) if f == 12]


def main():
    model = open(sys.argv[1], "rb").read()
    graph = [v for f, v in fields(model) if f == 7][0]
    samples = np.fromfile(sys.argv[2], dtype=np.float32)
    state = np.zeros((2, 1, 128), dtype=np.float32)
    context = np.zeros(64, dtype=np.float32)
    for start in range(0, len(samples) - 511, 512):
        chunk = samples[start:start + 512]
        x = np.concatenate([context, chunk])[None, :]
        env = run(graph, {"input": x, "state": state, "sr": np.array(16000, dtype=np.int64)})
        state = env["stateN"]
        context = chunk[-64:]
        print("%.7f" % float(env["output"].reshape(-1)[0]))


if __name__ == "__main__":
    main()
