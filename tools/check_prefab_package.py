#!/usr/bin/env python3
"""Checks an unpacked AAR against what Prefab (schema version 2) reads from it and what an app
needs from it at run time. Usage: tools/check_prefab_package.py <unpacked AAR>"""
import json
import re
import sys
from pathlib import Path

PACKAGE = "OmbreltNetCore"
# module: (library file stem, header, modules it exports to its consumers)
MODULES = {
    "NetCore": ("libOmbrelt_NetCore", "Ombrelt_NetCore.h", [":BaseLib", ":ManagePool"]),
    "BaseLib": ("libOmbrelt_BaseLib", "Ombrelt_BaseLib.h", []),
    "ManagePool": ("libOmbrelt_ManagePool", "Ombrelt_ManagePool.h", []),
}
ABI = {"api": 30, "stl": "c++_shared", "static": False}


class Bad(Exception):
    pass


def read_json(path):
    if not path.is_file():
        raise Bad(f"{path} is missing")
    try:
        value = json.loads(path.read_text())
    except ValueError as error:
        raise Bad(f"{path} is not valid JSON: {error}")
    if not isinstance(value, dict):
        raise Bad(f"{path} is not a JSON object")
    return value


def expect(path, record, key, kind, value=None):
    if key not in record:
        raise Bad(f'{path}: no "{key}"')
    # bool is an int in Python; a number field must not be a boolean
    if not isinstance(record[key], kind) or (kind is int and isinstance(record[key], bool)):
        raise Bad(f'{path}: "{key}" is {record[key]!r}, not of type {kind.__name__}')
    if value is not None and record[key] != value:
        raise Bad(f'{path}: "{key}" is {record[key]!r}, not {value!r}')


def check(root):
    if not (root / "AndroidManifest.xml").is_file():
        raise Bad("AndroidManifest.xml is missing")
    path = root / "prefab" / "prefab.json"
    package = read_json(path)
    expect(path, package, "schema_version", int, 2)
    expect(path, package, "name", str, PACKAGE)
    expect(path, package, "dependencies", list)
    expect(path, package, "version", str)
    # find_package compares versions as dotted numbers
    if not re.fullmatch(r"[0-9]+(\.[0-9]+)*", package["version"]):
        raise Bad(f'{path}: version {package["version"]!r} is not dotted numbers')

    found = sorted(p.name for p in (root / "prefab" / "modules").iterdir())
    if found != sorted(MODULES):
        raise Bad(f"modules are {found}, not {sorted(MODULES)}")
    libraries = 0
    for name, (library, header, exports) in MODULES.items():
        folder = root / "prefab" / "modules" / name
        path = folder / "module.json"
        module = read_json(path)
        expect(path, module, "library_name", str, library)
        expect(path, module, "export_libraries", list)
        for entry in module["export_libraries"]:
            if entry.startswith(":") and entry[1:] not in MODULES:
                raise Bad(f"{path}: exports {entry}, which is not a module of the package")
        if module["export_libraries"] != exports:
            raise Bad(f'{path}: export_libraries are {module["export_libraries"]}, not {exports}')
        if not (folder / "include" / header).is_file():
            raise Bad(f"{name}: include/{header} is missing")
        abi_folders = sorted((folder / "libs").glob("*"))
        if not abi_folders:
            raise Bad(f"{name}: no libs/android.<abi> folder")
        for abi_folder in abi_folders:
            match = re.fullmatch(r"android\.(.+)", abi_folder.name)
            if not match:
                raise Bad(f"{name}: libs/{abi_folder.name} is not named android.<abi>")
            path = abi_folder / "abi.json"
            abi = read_json(path)
            expect(path, abi, "abi", str, match.group(1))
            expect(path, abi, "api", int, ABI["api"])
            expect(path, abi, "ndk", int)
            expect(path, abi, "stl", str, ABI["stl"])
            expect(path, abi, "static", bool, ABI["static"])
            if not (abi_folder / f"{library}.so").is_file():
                raise Bad(f"{name}: libs/{abi_folder.name}/{library}.so is missing")
            if not (root / "jni" / match.group(1) / f"{library}.so").is_file():
                raise Bad(f"{name}: jni/{match.group(1)}/{library}.so, the copy the app loads, is missing")
            libraries += 1
    return f'{PACKAGE} {package["version"]}: {", ".join(MODULES)} ({libraries} module libraries)'


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    try:
        print("prefab package ok:", check(Path(sys.argv[1])))
    except Bad as error:
        sys.exit(f"prefab package: {error}")


if __name__ == "__main__":
    main()
