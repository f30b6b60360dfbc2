#!/usr/bin/python3
"""The engine's 8-bit streaming layers, in PyTorch for training and in
integers for checking.

A tensor with shift s holds integers q that stand for q / 2^s.  Training
keeps every tensor as those real values in float32: they are integers
scaled by powers of two, and no sum of products here reaches 2^24, so each
float32 result equals the integer result exactly, whatever the order of
the sums.  Rounding steps pass gradients straight through.

Layers, as the engine runs them on one frame per call:
  input:  q = clamp(floor(x * 2^s_in), -128, 127)
  conv:   acc[c] = sum(q_in * w[c]) + bias[c]      (w[c] has shift ws[c],
          bias the shift ws[c] + s_in), then q = min(acc >> (ws[c] + s_in - s_out), 127),
          or 0 for a negative acc (the rectifier fused into the output stage)
  dense:  acc as above, output acc / 2^(ws[c] + s_in) as float
The arithmetic right shift rounds toward minus infinity; nothing adds a
half unit.
"""

import numpy as np
import torch
from torch import nn
from torch.nn import functional as F


def ste(x, y):
    """y in the forward pass, the gradient of x in the backward pass."""
    return x + (y - x).detach()


def quantise_input(x, shift):
    """Float features to 8-bit values (as reals) at `shift` fractional bits."""
    s = 2.0 ** shift
    q = torch.clamp(ste(x * s, torch.floor(x * s)), -128.0, 127.0)
    return q / s


def weight_shifts(w, lo, hi):
    """Per output channel: the most fractional bits that keep the channel's
    largest weight within 8 bits, limited to [lo, hi]."""
    peak = w.detach().abs().reshape(w.shape[0], -1).amax(dim=1).clamp_min(1e-12)
    return torch.clamp(torch.floor(torch.log2(127.0 / peak)), lo, hi)


def quantise_weight(w, ws):
    s = (2.0 ** ws).reshape(-1, *([1] * (w.dim() - 1)))
    return torch.clamp(ste(w * s, torch.round(w * s)), -128.0, 127.0) / s


def quantise_bias(b, ws, in_shift):
    s = 2.0 ** (ws + in_shift)
    lim = 2.0 ** 31
    return torch.clamp(ste(b * s, torch.round(b * s)), -lim, lim - 1) / s


class StreamingNet(nn.Module):
    """Input quantiser, causal dilated 8-bit convolutions with rectifiers,
    one 8-bit dense layer to two float logits."""

    def __init__(self, in_dim, layers, n_classes=2):
        super().__init__()
        self.layers = list(layers)  # (filters, taps, dilation)
        self.convs = nn.ModuleList()
        width = in_dim
        for filters, taps, dilation in self.layers:
            self.convs.append(nn.Conv1d(width, filters, taps, dilation=dilation))
            width = filters
        self.fc = nn.Linear(width, n_classes)
        # Fractional bits of the input and of each convolution's output.
        self.register_buffer("in_shift", torch.tensor(4.0))
        self.register_buffer("out_shifts", torch.full((len(self.layers),), 4.0))

    def receptive_field(self):
        return 1 + sum((t - 1) * d for _, t, d in self.layers)

    def layer_weight_shifts(self, i, in_shift, out_shift):
        """Weight shifts of conv i (or of the dense layer for i == len):
        the output stage's right shift ws + in - out must lie in 0..31."""
        w = self.fc.weight if i == len(self.convs) else self.convs[i].weight
        return weight_shifts(w, float(out_shift - in_shift), float(31 + out_shift - in_shift))

    def forward(self, x, pad=True, collect=None):
        """x: (batch, time, in_dim) normalised features, oldest first.
        pad: every layer starts from zeros, as the engine after a reset.
        Without it the output is shorter by the receptive field less one.
        Returns logits (batch, time, n_classes)."""
        h = quantise_input(x, self.in_shift).transpose(1, 2)
        s_in = self.in_shift
        for i, conv in enumerate(self.convs):
            s_out = self.out_shifts[i]
            ws = self.layer_weight_shifts(i, s_in, s_out)
            w = quantise_weight(conv.weight, ws)
            b = quantise_bias(conv.bias, ws, s_in)
            if pad:
                h = F.pad(h, ((conv.kernel_size[0] - 1) * conv.dilation[0], 0))
            acc = F.conv1d(h, w, b, dilation=conv.dilation)
            if collect is not None:
                collect.append(acc.detach())
            scale = 2.0 ** s_out
            h = torch.clamp(ste(acc * scale, torch.floor(acc * scale)), 0.0, 127.0) / scale
            s_in = s_out
        h = h.transpose(1, 2)
        ws = self.layer_weight_shifts(len(self.convs), s_in, s_in)
        return F.linear(h, quantise_weight(self.fc.weight, ws),
                        quantise_bias(self.fc.bias, ws, s_in))

    @torch.no_grad()
    def calibrate(self, x, headroom=0.999):
        """Input and output shifts from the values a batch produces: the
        most fractional bits that keep the `headroom` quantile within 8 bits."""
        def bits(v):
            peak = float(torch.quantile(v.flatten()[:1_000_000], headroom))
            return float(np.clip(np.floor(np.log2(127.0 / max(peak, 1e-6))), -4, 12))
        self.in_shift.fill_(bits(x.abs()))
        for i in range(len(self.convs)):
            acc = []
            self.forward(x, collect=acc)
            self.out_shifts[i] = bits(acc[i].clamp_min(0))

    @torch.no_grad()
    def integer_layers(self):
        """The exported integers: per layer weights (out, taps, in) or
        (out, in) as int8, bias int32, weight shifts, and the input and
        output shifts."""
        out = []
        s_in = float(self.in_shift)
        for i, conv in enumerate(self.convs):
            s_out = float(self.out_shifts[i])
            ws = self.layer_weight_shifts(i, s_in, s_out)
            out.append(_integers(conv.weight.permute(0, 2, 1), conv.bias, ws, s_in, s_out))
            s_in = s_out
        ws = self.layer_weight_shifts(len(self.convs), s_in, s_in)
        out.append(_integers(self.fc.weight, self.fc.bias, ws, s_in, None))
        return out


def _integers(w, b, ws, s_in, s_out):
    s = (2.0 ** ws).reshape(-1, *([1] * (w.dim() - 1)))
    qw = torch.clamp(torch.round(w * s), -128, 127)
    qb = torch.clamp(torch.round(b * 2.0 ** (ws + s_in)), -2.0 ** 31, 2.0 ** 31 - 1)
    return dict(weight=qw.numpy().astype(np.int8), bias=qb.double().numpy().astype(np.int32),
                weight_shift=ws.numpy().astype(np.int8), in_shift=int(s_in),
                out_shift=None if s_out is None else int(s_out))


def run_integers(layers, dilations, in_shift, x):
    """The engine's arithmetic on one stream, frame by frame, in int64.
    x: (time, in_dim) float32 features.  Returns the 8-bit outputs of every
    convolution, (time, filters) each, and the float32 logits (time, classes)."""
    x = np.asarray(x, np.float32)
    q = np.clip(np.floor(x * np.float32(2.0 ** in_shift)), -128, 127).astype(np.int64)
    outs = []
    for layer, dil in zip(layers[:-1], dilations):
        w = layer["weight"].astype(np.int64)  # (out, taps, in)
        taps = w.shape[1]
        hist = np.concatenate([np.zeros(((taps - 1) * dil, q.shape[1]), np.int64), q])
        acc = np.zeros((q.shape[0], w.shape[0]), np.int64)
        for k in range(taps):
            acc += hist[k * dil:k * dil + q.shape[0]] @ w[:, k, :].T
        acc += layer["bias"].astype(np.int64)
        rshift = layer["weight_shift"].astype(np.int64) + layer["in_shift"] - layer["out_shift"]
        assert acc.max(initial=0) < 2 ** 31 and acc.min(initial=0) >= -2 ** 31
        q = np.where(acc < 0, 0, np.minimum(acc >> rshift, 127))
        outs.append(q.astype(np.int8))
    fc = layers[-1]
    acc = q @ fc["weight"].astype(np.int64).T + fc["bias"].astype(np.int64)
    assert np.abs(acc).max(initial=0) < 2 ** 24  # exact in float32
    exp = fc["weight_shift"].astype(np.int64) + fc["in_shift"]
    logits = (acc.astype(np.float64) / 2.0 ** exp).astype(np.float32)
    return outs, logits
