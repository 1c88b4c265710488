"""The modules alone give what the front end makes of the same signals."""

import numpy as np
import pytest
import quibo


@pytest.fixture(scope="module")
def scene(sample):
    """The first 17 s, whole frames and blocks, with two wakes: plain microphones, reference, and what the front end
    makes of them."""
    n = 18 * 15360
    mics, ref = sample[0][:, :n], sample[1][:n]
    with quibo.FrontEnd(encoding="scrambled") as front_end:
        return np.stack([quibo.unscramble(mic) for mic in mics]), ref, front_end.process(mics, ref)


def to_int16(x):
    """The library's conversion: toward zero, and the low 16 bits."""
    return (x * np.float32(32768)).astype(np.int32).astype(np.int16)


def in_chunks(process, sizes, *signals):
    results, at, n = [], 0, signals[0].shape[-1]
    while at < n:
        size = sizes[len(results) % len(sizes)]
        results.append(process(*(x[..., at : at + size] for x in signals), last=at + size >= n))
        at += size
    return results


def test_codec_restores_every_sample():
    every = np.arange(-32768, 32768).astype(np.int16)
    scrambled = quibo.scramble(every)
    assert not np.array_equal(scrambled, every)
    assert np.array_equal(quibo.unscramble(scrambled), every)


def test_cancellers_and_echo_suppressor_are_the_front_ends(scene):
    mics, ref, expected = scene
    for mic, output in zip(mics, expected.outputs):
        with quibo.LinearCanceller() as canceller:
            cancelled = canceller.process(mic, ref)
        assert np.array_equal(to_int16(cancelled.out), output)
    assert np.array_equal(cancelled.mic[quibo.OUTPUT_DELAY :], mics[2, : -quibo.OUTPUT_DELAY] / np.float32(32768))
    with quibo.LinearCanceller() as canceller, quibo.EchoSuppressor() as suppressor:
        clean = []
        for part in in_chunks(canceller.process, (7000, 300), mics[0], ref):
            clean.append(suppressor.process(part.mic, part.echo))
        assert np.array_equal(np.concatenate(clean), expected.clean)


def test_wake_up_hears_what_the_front_end_hears(scene):
    _, _, expected = scene
    mix = to_int16(expected.outputs.astype(np.float32).sum(0) * np.float32(0.3333333) / np.float32(32768))
    with quibo.WakeUp() as engine:
        heard = in_chunks(engine.process, (999, 1), mix)
    wakes = [wake for part in heard for wake in part.wakes]
    costs = np.concatenate([part.costs for part in heard])
    # The front end begins a new block after an angle, so later ones are not the same blocks.
    first = expected.events[0]
    assert first.sample - quibo.FRAME < wakes[0] + 480 <= first.sample + 480
    assert costs[wakes[0] // quibo.BLOCK - 1] == np.float32(first.cost)
    assert len(wakes) == len(expected.events) == 2
    below = np.flatnonzero(costs < quibo.THRESHOLD)
    assert [wake // quibo.BLOCK - 1 for wake in wakes] == below.tolist()

    with quibo.WakeUp(threshold=1e-6) as deaf:
        observed = deaf.process(mix)
    assert observed.wakes == ()
    until = wakes[0] // quibo.BLOCK
    assert np.array_equal(observed.costs[: until - 1], costs[: until - 1])


def test_noise_suppressors_and_direction_give_the_front_ends_angle(scene):
    _, _, expected = scene
    end = expected.events[0].sample
    with quibo.NoiseSuppressor(channels=3) as suppressor, quibo.Direction() as direction:
        cleaned = suppressor.process(expected.outputs)
        mix = to_int16(expected.outputs.astype(np.float32).sum(0) * np.float32(0.3333333) / np.float32(32768))
        with quibo.WakeUp() as engine:
            wake = engine.process(mix).wakes[0]
        vectors = direction.process(cleaned[:, :wake])
        assert vectors.shape == (wake // quibo.BLOCK, 2) and wake <= end
        assert direction.decide() == expected.events[0].angle


def test_noise_suppressors_share_nothing_but_what_they_are_told_to(scene):
    mics = scene[0][:, 8 * 16000 : 8 * 16000 + 32 * 1024]  # with a voice
    with quibo.NoiseSuppressor() as alone:
        expected = alone.process(mics[:1])
    one, other = quibo.NoiseSuppressor(), quibo.NoiseSuppressor()
    half = mics.shape[1] // 2
    together = [one.process(mics[:1, :half]), other.process(mics[1:2]), one.process(mics[:1, half:])]
    assert np.array_equal(np.concatenate([together[0], together[2]], axis=1), expected)
    with quibo.NoiseSuppressor(channels=2) as pair:
        assert not np.array_equal(pair.process(mics[:2])[:1], expected)


def test_limiter_holds_the_level_after_its_look_ahead():
    tone = 0.5 * np.sin(2 * np.pi * 440 * np.arange(16000) / 16000)
    with quibo.Limiter(gain_db=20, level_db=-3) as limiter:
        parts = in_chunks(limiter.process, (1, 50, 5000), tone)
    with quibo.Limiter(gain_db=20, level_db=-3) as limiter:
        assert np.array_equal(np.concatenate(parts), limiter.process(tone))
    assert abs(20 * np.log10(np.abs(np.concatenate(parts)[8000:]).max()) + 3) < 1


@pytest.mark.parametrize(
    "make, words",
    [
        (lambda: quibo.NoiseSuppressor(channels=0), ["channels", "at least 1"]),
        (lambda: quibo.NoiseSuppressor(floor=1.5), ["floor", "0 to 1"]),
        (lambda: quibo.NoiseSuppressor(2).process(np.zeros((3, 10), np.int16)), ["samples", "(2, n)"]),
        (lambda: quibo.WakeUp(threshold=-1), ["threshold", "above 0"]),
        (lambda: quibo.Limiter(rate=0), ["rate"]),
        (lambda: quibo.LinearCanceller().process(np.zeros(5), np.zeros(6)), ["mic 5", "ref 6"]),
        (lambda: quibo.EchoSuppressor().process(np.zeros((1, 5)), np.zeros(5)), ["mic", "(n,)"]),
        (lambda: quibo.Direction().process(np.zeros((2, 5), np.int16)), ["mics", "(3, n)"]),
        (lambda: quibo.scramble(np.zeros(5, np.int64)), ["samples", "int64"]),
    ],
)
def test_wrong_use_is_named(make, words):
    with pytest.raises((ValueError, TypeError)) as caught:
        make()
    assert all(word in str(caught.value) for word in words), caught.value
