"""Writes the bill of materials (SPDX 2.3, JSON) of a build: what the library holds, needs and was built with.

    sbom.py BUILD OUT

BUILD is a build folder. The result is checked by SPDX's own validator; two runs on one build write the same file.
"""

import datetime
import hashlib
import pathlib
import re
import subprocess
import sys
import uuid

from spdx_tools.common.spdx_licensing import spdx_licensing
from spdx_tools.spdx.model import (
    Actor,
    ActorType,
    Checksum,
    ChecksumAlgorithm,
    CreationInfo,
    Document,
    File,
    FileType,
    Package,
    PackagePurpose,
    PackageVerificationCode,
    Relationship,
    RelationshipType,
    SpdxNoAssertion,
)
from spdx_tools.spdx.validation.document_validator import validate_full_spdx_document
from spdx_tools.spdx.writer.json.json_writer import write_document_to_file

ROOT = pathlib.Path(__file__).resolve().parents[2]
LICENCE = spdx_licensing.parse("Apache-2.0")


def output_of(*command):
    return subprocess.run([str(word) for word in command], cwd=ROOT, capture_output=True, text=True, check=True).stdout


def file(path, name, kind):
    sums = [
        Checksum(algorithm, hashlib.new(digest, path.read_bytes()).hexdigest())
        for algorithm, digest in ((ChecksumAlgorithm.SHA1, "sha1"), (ChecksumAlgorithm.SHA256, "sha256"))
    ]
    return File(
        name=f"./{name}",
        spdx_id=f"SPDXRef-{name.replace('/', '-')}",
        checksums=sums,
        file_types=[kind],
        license_concluded=LICENCE,
        license_info_in_file=[LICENCE],
    )


def needed(library):
    """{library it is linked with: the newest symbol version asked of it}."""
    dynamic, versions = output_of("readelf", "-d", library), output_of("readelf", "--version-info", library)
    asked = re.findall(r"Name: GLIBC_([\d.]+)", versions)
    newest = max(asked, key=lambda version: [int(part) for part in version.split(".")])
    return dict.fromkeys(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic), newest)


def document(build):
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, flags=re.M)[1]
    parameters = pathlib.Path(re.search(r"^QUIBO_PARAMS_DIR:\w+=(.*)$", cache, flags=re.M)[1])
    version = re.search(r"project\(quibo VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(encoding="utf-8"))[1]
    library = (build / "libquibo.so").resolve()

    def package(name, release, purpose, licence=SpdxNoAssertion()):
        return Package(
            name=name,
            spdx_id=f"SPDXRef-{re.sub('[^A-Za-z0-9.]', '-', name)}",
            version=release,
            download_location=SpdxNoAssertion(),
            files_analyzed=False,
            license_declared=licence,
            license_concluded=licence,
            primary_package_purpose=purpose,
        )

    shared, archive = (file(path, path.name, FileType.BINARY) for path in (library, build / "libquibo.a"))
    quibo = package("quibo", version, PackagePurpose.LIBRARY, LICENCE)
    quibo.files_analyzed, quibo.license_info_from_files = True, [LICENCE]
    quibo.verification_code = PackageVerificationCode(
        hashlib.sha1("".join(sorted(f.checksums[0].value for f in (shared, archive))).encode()).hexdigest()
    )
    names = [*sorted(path.name for path in parameters.glob("*.safetensors")), "keywords.json"]
    tables = [file(parameters / name, f"params/{name}", FileType.OTHER) for name in names]
    linked = [package(name, release, PackagePurpose.LIBRARY) for name, release in needed(library).items()]
    tools = [
        package(name, release, PackagePurpose.APPLICATION)
        for name, release in (
            (pathlib.Path(compiler).name, output_of(compiler, "-dumpfullversion").strip()),
            ("cmake", output_of("cmake", "--version").split()[2]),
        )
    ]

    content = hashlib.sha256("".join(f.checksums[1].value for f in (shared, archive)).encode()).hexdigest()
    made = datetime.datetime.fromtimestamp(int(output_of("git", "log", "-1", "--format=%ct")), datetime.timezone.utc)
    info = CreationInfo(
        spdx_version="SPDX-2.3",
        spdx_id="SPDXRef-DOCUMENT",
        name=f"quibo-{version}",
        document_namespace=f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, content)}",
        creators=[Actor(ActorType.TOOL, f"quibo-sbom-{version}")],
        created=made.replace(tzinfo=None),
    )
    related = [Relationship(info.spdx_id, RelationshipType.DESCRIBES, quibo.spdx_id)]
    related += [Relationship(quibo.spdx_id, RelationshipType.CONTAINS, f.spdx_id) for f in (shared, archive)]
    related += [
        Relationship(f.spdx_id, RelationshipType.GENERATED_FROM, table.spdx_id) for f in (shared, archive) for table in tables
    ]
    related += [Relationship(shared.spdx_id, RelationshipType.DYNAMIC_LINK, p.spdx_id) for p in linked]
    related += [Relationship(p.spdx_id, RelationshipType.BUILD_TOOL_OF, quibo.spdx_id) for p in tools]
    return Document(info, packages=[quibo, *linked, *tools], files=[shared, archive, *tables], relationships=related)


def main():
    build, out = map(pathlib.Path, sys.argv[1:3])
    made = document(build)
    problems = validate_full_spdx_document(made)
    for problem in problems:
        print(f"sbom: {problem.validation_message}", file=sys.stderr)
    if problems:
        sys.exit(1)
    write_document_to_file(made, str(out))
    print(f"wrote {out}: {len(made.packages)} packages, {len(made.files)} files")


if __name__ == "__main__":
    main()
