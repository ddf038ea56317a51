"""Copies the type stubs of the installed pytramel into tests/stubs, the
references that tests/test_stubs.py compares the installed stubs with.

Install first (the stubs are generated at install time), then run with the
same interpreter:

    pip install .
    python tools/refresh_stubs.py
"""
import importlib.util
import pathlib
import shutil

REFERENCES = pathlib.Path(__file__).resolve().parent.parent / "tests" / "stubs"


def installed_package() -> pathlib.Path:
    spec = importlib.util.find_spec("pytramel")
    if spec is None or not spec.submodule_search_locations:
        raise SystemExit("pytramel is not installed for this interpreter; run `pip install .` first")
    return pathlib.Path(list(spec.submodule_search_locations)[0])


def main() -> None:
    package = installed_package()
    stubs = sorted(package.rglob("*.pyi"))
    if not stubs:
        raise SystemExit(f"no stubs under {package}; was it installed from this tree?")
    if REFERENCES.exists():
        shutil.rmtree(REFERENCES)
    for stub in stubs:
        target = REFERENCES / stub.relative_to(package)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(stub, target)
        print(f"{target.relative_to(REFERENCES.parent.parent)}")


if __name__ == "__main__":
    main()
