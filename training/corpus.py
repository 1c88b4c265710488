"""Folders of audio as training material: who speaks, what may be used for what, who is held out.

A corpus is a folder. Each of its folders may have a manifest.csv whose rows name an audio file
(WAV, FLAC, Ogg, Opus, any rate; mono or mixed to mono) in the column `path`; further columns are
read where they are there:
  seconds, speaker, text, pinyin, pinyin_tones, ends (s at which each of its syllables ends),
  flags (space-separated), licence, origin, roles (space-separated), split
A folder without a manifest is taken file by file, the speaker being the file's folder. What a set
of clips is for and who is held out is described in a TOML file, see corpora/default.toml.

Splits never share a speaker. A speaker who is not assigned by name goes where a hash of the name
points (80 % train, 10 % valid, 10 % test), so adding material moves nobody. Clips without a speaker
are one speaker per folder; noise and music are split by clip.
"""

from __future__ import annotations

import collections
import csv
import dataclasses
import fcntl
import fnmatch
import functools
import hashlib
import os
import pathlib
import subprocess
from collections.abc import Callable, Iterator, Mapping, Sequence

import numpy as np
import soundfile
import tomllib

from training import cache_keys, synthetic
from training.device_facts import RATE

ROLES = ("near", "far", "noise", "music", "mandarin")
SPLITS = ("train", "valid", "test")
EXTENSIONS = (".wav", ".flac", ".ogg", ".opus")
VOICES = "neural_voices"  # folder of what a synthesiser says
DEFAULT_DESCRIPTION = pathlib.Path(__file__).parent / "corpora" / "default.toml"


@dataclasses.dataclass(frozen=True)
class Clip:
    path: str  # below the corpus folder; "synthetic/KIND/NUMBER" is made on demand
    speaker: str
    split: str
    roles: tuple
    set: str  # what `share` is about
    share: float
    seconds: float = 0.0  # 0 = not known before it is read
    text: str = ""
    pinyin: str = ""
    pinyin_tones: str = ""
    ends: str = ""
    flags: tuple = ()
    licence: str = ""
    origin: str = ""


class Corpus:
    def __init__(
        self,
        root: pathlib.Path | None,
        cache: pathlib.Path | str,
        clips: list[Clip],
        elsewhere: Mapping[str, pathlib.Path] | None = None,
    ) -> None:
        self._root, self._cache = root, pathlib.Path(cache)
        self._clips, self._elsewhere = clips, elsewhere or {}  # {folder of the corpus: where it really lies}
        self._pools = {}
        self._draws = {}

    @property
    def root(self) -> pathlib.Path | None:
        """The folder, unpacked; None without recordings."""
        return self._root

    def clips(self, role: str, split: str) -> list[Clip]:
        """The clips of a role in a split, in a fixed order."""
        if (role, split) not in self._pools:
            if role not in ROLES or split not in SPLITS:
                raise ValueError(f"no role {role!r} or split {split!r}")
            self._pools[role, split] = [c for c in self._clips if c.split == split and role in c.roles]
        return self._pools[role, split]

    def where(self, keep: Callable[[Clip], bool]) -> Corpus:
        """The corpus of the clips that `keep` accepts."""
        return Corpus(self._root, self._cache, [c for c in self._clips if keep(c)], self._elsewhere)

    def with_split(self, split: str, named: str) -> Corpus:
        """The corpus of one split's clips, that split being called `named`."""
        clips = [dataclasses.replace(c, split=named) for c in self._clips if c.split == split]
        return Corpus(self._root, self._cache, clips, self._elsewhere)

    def draw_speaker(self, rng: np.random.Generator, role: str, split: str) -> list[Clip]:
        """All clips of one speaker: a set by its share, then one of its speakers."""
        if (role, split) not in self._draws:
            sets = collections.defaultdict(lambda: collections.defaultdict(list))
            for clip in self.clips(role, split):
                sets[clip.set, clip.share][clip.speaker].append(clip)
            if not sets:
                raise ValueError(f"no {role} audio in the {split} split: name who belongs there in corpus.toml")
            shares = np.array([share for _, share in sets])
            speakers = [list(by_speaker.values()) for by_speaker in sets.values()]
            self._draws[role, split] = shares / shares.sum(), speakers
        shares, speakers = self._draws[role, split]
        of_set = speakers[rng.choice(len(shares), p=shares)]
        return of_set[rng.integers(len(of_set))]

    def draw(self, rng: np.random.Generator, role: str, split: str) -> Clip:
        """One clip, by set, speaker and clip."""
        clips = self.draw_speaker(rng, role, split)
        return clips[rng.integers(len(clips))]

    def read(self, clip: Clip, start: int = 0, samples: int | None = None) -> np.ndarray:
        """float32 mono samples at 16 kHz, from sample `start`; to the end, or at most `samples`."""
        path = self._playable(clip)
        x, _ = soundfile.read(path, start=start, frames=samples or -1, dtype="float32")
        return x

    def length(self, clip: Clip) -> int:
        """Samples of a clip."""
        return soundfile.info(self._playable(clip)).frames

    def excerpt(self, rng: np.random.Generator, clip: Clip, samples: int) -> np.ndarray:
        """`samples` samples from anywhere in the clip, which is repeated where it is shorter."""
        length = self.length(clip)
        if length >= samples:
            return self.read(clip, int(rng.integers(length - samples + 1)), samples)
        x = np.roll(self.read(clip), -int(rng.integers(length)))
        return np.tile(x, -(-samples // length))[:samples]

    @functools.cached_property
    def _digests(self) -> cache_keys.FileDigests:
        return cache_keys.FileDigests(self._cache / "digests.json")

    def _content(self, clip: Clip) -> str:
        """Digest of a clip's audio."""
        if self._synthetic(clip):
            return cache_keys.digest([clip.path, synthetic.made_from(clip.path.split("/")[1])])
        return self._digests(self._file(clip))

    def _file(self, clip: Clip) -> pathlib.Path:
        """The recording itself."""
        for folder, place in self._elsewhere.items():
            if clip.path.startswith(f"{folder}/"):
                return place / clip.path[len(folder) + 1 :]
        return self._root / clip.path

    def contents(self, clips: list[Clip], labels: bool = False) -> str:
        """Digest of what a draw from these clips depends on: their audio, in this order, their speakers and shares;
        labels: what is said, too."""
        rows = [
            [c.path, self._content(c), c.speaker, c.set, c.share] + ([c.pinyin, c.ends, c.flags] if labels else [])
            for c in clips
        ]
        self._digests.save()
        return cache_keys.digest(rows)

    def used(self, roles: Sequence[str], split: str) -> dict[str, str]:
        """{role: contents of its clips in a split}; labels count for the role that has them."""
        return {r: self.contents(self.clips(r, split), labels=r == "mandarin") for r in roles}

    def _playable(self, clip: Clip) -> pathlib.Path:
        """The clip as a 16 kHz mono file: itself, or a copy of this content in the cache."""
        if not self._synthetic(clip):
            path = self._file(clip)
            if path.suffix == ".wav" and _is_mono_16k(path):
                return path
        name = f"{pathlib.PurePath(clip.path).stem}-{self._content(clip)[:12]}.wav"
        cached = self._cache / "clips" / pathlib.PurePath(clip.path).parent / name
        if not cached.exists():
            cached.parent.mkdir(parents=True, exist_ok=True)
            part = cached.with_suffix(f".{os.getpid()}.wav")  # several processes may want it
            soundfile.write(part, np.clip(self._decode(clip), -1.0, 1.0), RATE, subtype="PCM_16")
            part.replace(cached)
        return cached

    def _decode(self, clip: Clip) -> np.ndarray:
        if self._synthetic(clip):
            _, kind, number = clip.path.split("/")
            make = {"speech": synthetic.speech, "noise": synthetic.noise, "music": synthetic.music}
            return make[kind](int(number))
        x, rate = soundfile.read(self._file(clip), always_2d=True)
        return synthetic.to_rate(x.mean(axis=1), rate)

    def digest(self) -> str:
        """Hash of what is in the corpus and how it is split."""
        digest = hashlib.sha256()
        for c in self._clips:
            size = 0 if self._synthetic(c) else self._file(c).stat().st_size
            line = (c.path, size, c.speaker, c.split, c.roles, c.share)
            digest.update(f"{line}\n".encode())
        return digest.hexdigest()[:16]

    @staticmethod
    def _synthetic(clip: Clip) -> bool:
        return clip.path.startswith("synthetic/")

    def sources(self, roles: Sequence[str] = ROLES, splits: Sequence[str] = SPLITS) -> collections.Counter[tuple[str, str]]:
        """(licence, set folder) -> hours of recordings with one of the roles in one of the splits."""
        hours = collections.Counter()
        for c in self._clips:
            if c.split in splits and set(c.roles) & set(roles) and not self._synthetic(c):
                parts = pathlib.PurePath(c.path).parent.parts[:2]
                folder = "/".join(part for part in parts if not part.isdigit())  # speakers' numbers
                seconds = c.seconds or self.length(c) / RATE
                hours[c.licence or "not stated", folder] += seconds / 3600
        return hours


def _is_mono_16k(path: pathlib.Path) -> bool:
    info = soundfile.info(path)
    return info.samplerate == RATE and info.channels == 1


def hashed_split(seed: int, name: str) -> str:
    """Split of a speaker or a clip without one assigned."""
    u = int.from_bytes(hashlib.sha256(f"{seed}:{name}".encode()).digest()[:8]) / 2**64
    return "train" if u < 0.8 else "valid" if u < 0.9 else "test"


class _Description:
    """The TOML file: what the clips of a folder are for, and who is held out."""

    def __init__(self, path: pathlib.Path, seed: int) -> None:
        table = tomllib.loads(pathlib.Path(path).read_text(encoding="utf-8"))
        self.sets = table.get("set", [])
        self.drop = table.get("drop", {})
        self.synthetic_share = table.get("synthetic", {}).get("share", 1.0)
        self.held_out = set(table.get("held_out", {}).get("clips", []))
        self.speakers = {}
        for split, names in table.get("speakers", {}).items():
            for name in names:
                if self.speakers.setdefault(name, split) != split:
                    raise ValueError(f"{path}: speaker {name} in two splits")
        self.seed = seed

    def clip(self, row: dict[str, str]) -> Clip | None:
        """The Clip of a manifest row whose path is below the corpus folder, None when held out."""
        name = str(pathlib.PurePath(row["path"]).with_suffix(""))
        if name in self.held_out:
            return None
        rule = next((s for s in self.sets if any(fnmatch.fnmatchcase(name, p) for p in s["clips"])), {})
        folder = name.split("/")[0]
        kind = next((k for k in ("noise", "music") if folder.lower().startswith(k)), None)
        roles = row.get("roles", "").split() or rule.get("roles")
        if roles is None:
            roles = [kind] if kind else ["near", "far"]
        flags = row.get("flags", "").split()
        roles = tuple(r for r in roles if not set(flags) & set(self.drop.get(r, ())))
        speaker = row.get("speaker") or str(pathlib.PurePath(name).parent)
        by = rule.get("split", "clip" if kind else "speaker")
        if row.get("split"):
            split = row["split"]
        elif by in SPLITS:
            split = by
        else:
            key = speaker if by == "speaker" else name
            split = self.speakers.get(key) or hashed_split(self.seed, key)
        return Clip(
            path=row["path"],
            speaker=name if by == "clip" else speaker,
            split=split,
            roles=roles,
            set=rule.get("clips", [folder])[0],
            share=rule.get("share", 1.0),
            seconds=float(row.get("seconds") or 0.0),
            flags=tuple(flags),
            **{k: row.get(k) or "" for k in ("text", "pinyin", "pinyin_tones", "ends", "licence", "origin")},
        )


def _manifest(folder: pathlib.Path, name: pathlib.Path | str) -> Iterator[dict[str, str]]:
    """A folder's rows, their paths below `name`."""
    with open(folder / "manifest.csv", newline="", encoding="utf-8") as f:
        for row in csv.DictReader(f):
            yield {k: v for k, v in row.items() if k and v} | {"path": str(pathlib.PurePath(name) / row["path"])}


def _rows(root: pathlib.Path) -> Iterator[dict[str, str]]:
    """Manifest rows of every folder, paths below `root`; folders without one file by file."""
    folders = sorted(p for p in root.iterdir() if p.is_dir())
    for folder in [root, *folders] if (root / "manifest.csv").exists() else folders:
        if (folder / "manifest.csv").exists():
            yield from _manifest(folder, folder.relative_to(root))
        else:
            for path in sorted(folder.rglob("*")):
                if path.suffix.lower() in EXTENSIONS:
                    yield {"path": str(path.relative_to(root))}


def _synthetic_clips(seed: int, splits: Sequence[str], share: float) -> list[Clip]:
    """Speech for the splits asked for; noise and music for all of them."""
    licence = "made by this toolkit"
    clips = []
    for i in range(synthetic.SPEECH_CLIPS):
        row = synthetic.speech_row(i)
        speaker = row["speaker"]
        if hashed_split(seed, speaker) not in splits:
            continue
        mandarin = row["language"] == synthetic.MANDARIN
        clips.append(
            Clip(
                path=f"synthetic/speech/{i:05d}",
                speaker=speaker,
                split=hashed_split(seed, speaker),
                roles=("near", "far", "mandarin") if mandarin else ("near", "far"),
                set="synthetic/speech",
                share=share,
                text=row["text"],
                pinyin=" ".join(t.rstrip("12345") for t in row["text"].split()) * mandarin,
                pinyin_tones=row["text"] * mandarin,
                licence=licence,
            )
        )
    for kind, count in (("noise", synthetic.NOISE_CLIPS), ("music", synthetic.MUSIC_CLIPS)):
        for i in range(count):
            # Kinds of noise alternate: ten rounds of them make one split of 8, 1 and 1.
            round_ = i // len(synthetic.NOISES) if kind == "noise" else i
            clips.append(
                Clip(
                    path=f"synthetic/{kind}/{i:05d}",
                    speaker=f"synthetic/{kind}/{i:05d}",
                    split=SPLITS[max(0, round_ % 10 - 7)],
                    roles=(kind,),
                    set=f"synthetic/{kind}",
                    share=share,
                    seconds=synthetic.NOISE_SECONDS,
                    licence=licence,
                )
            )
    return clips


def _unpack(packed: pathlib.Path, unpacked: pathlib.Path) -> pathlib.Path:
    """Runs the corpus' own unpack.sh once; other processes wait for it."""
    unpacked.mkdir(parents=True, exist_ok=True)
    stamp = unpacked / ".unpacked"
    with open(unpacked / ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        digests = cache_keys.FileDigests(unpacked / ".packed.json")
        files = sorted(p for p in packed.rglob("*") if p.is_file())
        state = cache_keys.digest([[str(p.relative_to(packed)), digests(p)] for p in files])
        digests.save()
        if not stamp.exists() or stamp.read_text() != state:
            subprocess.run(["bash", packed / "unpack.sh", unpacked.resolve()], check=True)
            stamp.write_text(state)
    return unpacked


def open_corpus(
    path: pathlib.Path | str | None,
    cache_dir: pathlib.Path | str,
    seed: int = 0,
    description: pathlib.Path | None = None,
    voices: pathlib.Path | None = None,
) -> Corpus:
    """The corpus in the folder `path`, or synthetic audio alone when that is None.

    A folder with an unpack.sh of its own is unpacked into the cache first. `cache_dir` also takes
    synthetic and decoded clips. `seed` turns the hash that splits speakers. `voices`: a folder that
    training/neural_voices made, heard as if it lay in the corpus.
    """
    cache_dir = pathlib.Path(cache_dir)
    root = path and pathlib.Path(path)
    if root and (root / "unpack.sh").exists():
        root = _unpack(root, cache_dir / "unpacked")
    own = root and root / "corpus.toml"
    rules = _Description(description or (own if own and own.exists() else DEFAULT_DESCRIPTION), seed)
    rows, elsewhere = list(_rows(root)) if root else [], {}
    if voices:
        elsewhere[f"{VOICES}/{voices.name}"] = voices
        rows += [{"roles": "mandarin"} | row for row in _manifest(voices, f"{VOICES}/{voices.name}")]
    clips = [clip for row in rows if (clip := rules.clip(row)) and clip.roles]
    if root is None:
        return Corpus(None, cache_dir, clips + _synthetic_clips(seed, SPLITS, 1.0), elsewhere)
    if not clips:
        raise ValueError(f"{root}: no audio")
    by_speech = [c for c in clips if {"near", "far"} & set(c.roles)]
    own_splits = {c.speaker: c.split for c in by_speech}
    for clip in by_speech:
        if own_splits[clip.speaker] != clip.split:
            raise ValueError(f"speaker {clip.speaker} is in two splits")
    return Corpus(root, cache_dir, clips + _synthetic_clips(seed, ("train",), rules.synthetic_share), elsewhere)
