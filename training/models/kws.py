"""The wake-up network (wakeup/), float or with the engine's rounding: log-mel frames to 146 syllable scores per 30 ms."""
import torch
from torch import nn
from torch.nn import functional as F

from . import features
from .quantise import Quantiser, fake_weight

MEL_HISTORY = 240
CLASSES, BLANK, FILLER = 146, 145, 0
STATE, CHANNELS, MEMORY, WIDTH, LAYERS = 128, 164, 8, 256, 4
FEATURE_CODES = (0.1, 20)  # -2..23.5 nats; silence lies below and becomes code 0
STATE_CODES = (2 / 255, 128)
FILLER_GAIN, BLANK_GAIN = 0.9, 0.95  # on positive scores, before the softmax


def inputs(wave):
    """int16-valued wave [B, samples] -> [B, frames, 40]."""
    return features.log_mel(wave, MEL_HISTORY)


class Conv(nn.Module):
    """A convolution's weights as codes where its output is."""

    def __init__(self, inputs, outputs, kernel, stride=1, per_channel=False, rectified=False):
        super().__init__()
        # A per-channel layer has no bias: its input has zero point 0, so there is nothing to absorb either.
        self.conv = nn.Conv2d(inputs, outputs, kernel, stride, groups=inputs if per_channel else 1,
                              bias=not per_channel)
        self.out = Quantiser(rectified)

    def forward(self, x):
        weight = fake_weight(self.conv.weight) if self.out.mode == "codes" else self.conv.weight
        return self.out(F.conv2d(x, weight, self.conv.bias, self.conv.stride, groups=self.conv.groups))


class Dense(nn.Module):
    def __init__(self, inputs, outputs, rectified=False):
        super().__init__()
        self.linear, self.out = nn.Linear(inputs, outputs), Quantiser(rectified)

    def forward(self, x):
        weight = fake_weight(self.linear.weight) if self.out.mode == "codes" else self.linear.weight
        return self.out(F.linear(x, weight, self.linear.bias))


class Recurrent(nn.Module):
    """The engine clears the state to code 0, which stands for about -1, not for 0."""

    def __init__(self):
        super().__init__()
        self.gru = nn.GRU(STATE, STATE, batch_first=True)
        self.input_gates = nn.ModuleList(Quantiser(zero_first=True) for _ in "rzn")
        self.state_gates = nn.ModuleList(Quantiser(zero_first=True) for _ in "rzn")
        self.out = Quantiser(fixed=STATE_CODES, zero_first=True)

    def forward(self, x):
        h = x.new_full((x.shape[0], STATE), self.out.cleared())
        if self.out.mode == "float":
            return self.gru(x, h[None])[0]
        g, outputs = self.gru, []
        quantised = [fake_weight(w) if self.out.mode == "codes" else w
                     for side in (g.weight_ih_l0, g.weight_hh_l0) for w in side.chunk(3)]
        w_i, w_h = quantised[:3], quantised[3:]
        b_i, b_h = g.bias_ih_l0.chunk(3), g.bias_hh_l0.chunk(3)
        from_input = [q(F.linear(x, w, b)) for q, w, b in zip(self.input_gates, w_i, b_i)]
        for t in range(x.shape[1]):
            h_r, h_z, h_n = (q(F.linear(h, w, b)) for q, w, b in zip(self.state_gates, w_h, b_h))
            i_r, i_z, i_n = (gate[:, t] for gate in from_input)
            r, z = torch.sigmoid(i_r + h_r), torch.sigmoid(i_z + h_z)
            h = self.out((1 - z) * torch.tanh(i_n + r * h_n) + z * h)
            outputs.append(h)
        return torch.stack(outputs, 1)


class MemoryBlock(nn.Module):
    """Dense, a filter over each channel's eight previous steps added on, dense and ReLU, layer norm without epsilon."""

    def __init__(self, size):
        super().__init__()
        self.into = Dense(size, CHANNELS)
        self.taps = nn.Parameter(torch.randn(CHANNELS, MEMORY) * 0.1)  # oldest step first
        self.left, self.sum = Quantiser(), Quantiser()
        self.outof = Dense(CHANNELS, WIDTH, rectified=True)
        nn.init.uniform_(self.outof.linear.bias, 0.1, 0.5)
        self.norm, self.out = nn.LayerNorm(WIDTH, eps=0.0), Quantiser()

    def forward(self, x):
        p = self.into(x)
        codes = self.out.mode == "codes"
        past = F.pad(p, (0, 0, MEMORY, 0), value=self.into.out.cleared() if codes else 0.0)[:, :-1]
        taps = fake_weight(self.taps) if codes else self.taps
        memory = self.left(torch.einsum("btck,ck->btc", past.unfold(1, MEMORY, 1), taps))
        if codes:  # the engine brings the second summand to the first one's scale, in whole steps
            scale = self.into.out.scale
            memory = memory + (torch.round(memory / scale) * scale - memory).detach()
        return self.out(self.norm(self.outof(self.sum(p + memory))))


class SyllableNetwork(nn.Module):
    def __init__(self):
        super().__init__()
        self.features = Quantiser(fixed=FEATURE_CODES, zero_first=True)
        self.conv1 = Conv(1, 16, (2, 4), (1, 2), rectified=True)
        self.conv2 = nn.ModuleList([Conv(16, 16, (2, 4), (1, 2), True), Conv(16, 48, 1, rectified=True)])
        self.conv3 = nn.ModuleList([Conv(48, 48, (2, 4), (1, 2), True), Conv(48, 64, 1, rectified=True)])
        self.conv4 = nn.ModuleList([Conv(64, 64, (3, 3), (3, 3), True), Conv(64, STATE, 1, rectified=True)])
        self.gru = Recurrent()
        self.memory = nn.ModuleList(MemoryBlock(WIDTH if i else STATE) for i in range(LAYERS))
        self.output = Dense(WIDTH, CLASSES)

    def forward(self, x):
        """Features [B, frames, 40] -> scores [B, frames / 3, 146]."""
        low = self.features.cleared()
        x = self.features(x.clamp(low, low + 255 * float(self.features.scale)))[:, None]
        x = self.conv1(F.pad(x, (0, 0, 1, 0), value=low))
        for per_channel, pointwise in (self.conv2, self.conv3):
            x = pointwise(per_channel(F.pad(x, (0, 0, 1, 0))))
        per_channel, pointwise = self.conv4
        x = self.gru(pointwise(per_channel(x))[..., 0].transpose(1, 2))
        for block in self.memory:
            x = block(x)
        return self.output(x)


def posteriors(scores):
    """Log posteriors as the engine forms them: positive filler and blank scores are damped."""
    gain = torch.ones(CLASSES, device=scores.device)
    gain[FILLER], gain[BLANK] = FILLER_GAIN, BLANK_GAIN
    return torch.log_softmax(torch.where(scores > 0, scores * gain, scores), -1)
