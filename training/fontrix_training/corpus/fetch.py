#!/usr/bin/python3
"""Fetches the font corpus named in packages.tsv into a cache folder outside the repository.

    training/run corpus.fetch [--cache DIR] [--jobs N] [--pin]

Debian packages come through `apt-get download` and `dpkg-deb -x`; npm packages through
`npm pack`. Only font files are kept, under DIR/fonts/<source>/<package>/; of a web-font
package only its "latin" subset files. A package already fetched is skipped, so an
interrupted run is continued by running it again. `--pin` writes the version of every npm
package listed as "latest" back into packages.tsv once it has been fetched, and drops from the
list those that could not be fetched.

DIR defaults to $FONTRIX_CORPUS_DIR, then ~/.cache/fontrix-corpus.
"""
import argparse
import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
from fontrix_training import CORPUS, tab_rows

PACKAGES = os.path.join(CORPUS, "packages.tsv")
FONT_EXTENSIONS = (".ttf", ".otf", ".pfb", ".t1", ".ttc", ".otc")


def default_cache():
    return os.environ.get("FONTRIX_CORPUS_DIR") or os.path.expanduser("~/.cache/fontrix-corpus")


def read_packages(path=PACKAGES):
    """(source, package, version) rows; lines starting with # are comments."""
    rows = []
    for number, fields in tab_rows(path):
        if len(fields) != 3 or fields[0] not in ("debian", "npm") or not fields[1] or not fields[2]:
            raise ValueError(f"{path}:{number}: expected 'debian|npm<TAB>package<TAB>version'")
        rows.append(tuple(fields))
    return rows


def write_packages(rows, path=PACKAGES):
    with open(path + ".tmp", "w", encoding="utf-8") as f:
        f.write("# source\tpackage\tversion (pinned; fetch.py --pin fills in 'latest')\n")
        for row in rows:
            f.write("\t".join(row) + "\n")
    os.replace(path + ".tmp", path)


# A web-font package holds files/<id>-<subset>-<weight>-<style>.woff2 for every subset; the
# basic "latin" subset is the one that holds a-z, A-Z and 0-9 ("latin-ext" does not).
WEB_FONT_FILE = re.compile(r"^package/files/[a-z0-9-]+-latin-(\d+)-(normal|italic)\.woff2$")


def is_latin_web_font(member_name):
    return WEB_FONT_FILE.match(member_name) is not None


# The Google Fonts catalogue (families and their categories) in the metadata package.
CATALOGUE = "package/data/google-fonts-v2.json"


def keeps(member_name):
    return is_latin_web_font(member_name) or member_name == CATALOGUE


def is_font_file(path):
    return path.lower().endswith(FONT_EXTENSIONS)


def package_folder(cache, source, package):
    return os.path.join(cache, "fonts", source, package.replace("/", "__"))


def finish(folder, staging, info):
    """Moves a fully fetched package into place; its info.json marks it complete."""
    with open(os.path.join(staging, "info.json"), "w", encoding="utf-8") as f:
        json.dump(info, f, indent=1)
    if os.path.exists(folder):
        shutil.rmtree(folder)
    os.makedirs(os.path.dirname(folder), exist_ok=True)
    os.replace(staging, folder)


def debian_licence(root, package):
    """The licence names of the package's copyright file, in order of first mention."""
    path = os.path.join(root, "usr/share/doc", package, "copyright")
    names = []
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                if line.startswith("License:"):
                    name = line[len("License:"):].strip()
                    if name and name not in names:
                        names.append(name)
    except OSError:
        pass
    return " / ".join(names[:3]) or "see Debian copyright"


def fetch_debian(cache, package, version):
    folder = package_folder(cache, "debian", package)
    downloads = os.path.join(cache, "downloads")
    os.makedirs(downloads, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=cache) as work:
        # apt warns that root downloads unsandboxed into a folder its _apt user cannot read.
        subprocess.run(["apt-get", "download", "-q", f"{package}={version}"], cwd=work, check=True,
                       capture_output=True)
        debs = [name for name in os.listdir(work) if name.endswith(".deb")]
        if len(debs) != 1:
            raise RuntimeError(f"apt-get download {package}={version} gave {debs}")
        root = os.path.join(work, "root")
        subprocess.run(["dpkg-deb", "-x", os.path.join(work, debs[0]), root], check=True)
        staging = os.path.join(work, "staging")
        os.makedirs(staging)
        files = []
        # TeX font packages keep their files under usr/share/texmf and only link them into
        # usr/share/fonts; links are skipped, so the whole of usr/share is searched.
        for directory, _, names in sorted(os.walk(os.path.join(root, "usr/share"))):
            for name in sorted(names):
                source = os.path.join(directory, name)
                if is_font_file(name) and os.path.isfile(source) and not os.path.islink(source):
                    target = os.path.join(staging, name)
                    if not os.path.exists(target):
                        shutil.copyfile(source, target)
                        files.append(name)
        finish(folder, staging, {"source": "debian", "package": package, "version": version,
                                 "licence": debian_licence(root, package), "files": sorted(files)})


def fetch_npm(cache, package, version):
    folder = package_folder(cache, "npm", package)
    with tempfile.TemporaryDirectory(dir=cache) as work:
        wanted = package if version == "latest" else f"{package}@{version}"
        out = subprocess.run(["npm", "pack", "--silent", wanted], cwd=work, check=True,
                             capture_output=True, text=True).stdout.split()
        tgz = os.path.join(work, out[-1])
        staging = os.path.join(work, "staging")
        os.makedirs(staging)
        files, meta = [], {}
        with tarfile.open(tgz) as tar:
            for member in tar.getmembers():
                if member.name == "package/package.json":
                    meta = json.load(tar.extractfile(member))
                elif member.isfile() and keeps(member.name):
                    name = os.path.basename(member.name)
                    with open(os.path.join(staging, name), "wb") as f:
                        shutil.copyfileobj(tar.extractfile(member), f)
                    files.append(name)
        finish(folder, staging, {"source": "npm", "package": package, "version": meta.get("version", version),
                                 "licence": meta.get("license", "unknown"), "files": sorted(files)})


def fetched_version(cache, source, package):
    try:
        with open(os.path.join(package_folder(cache, source, package), "info.json"), encoding="utf-8") as f:
            return json.load(f)["version"]
    except (OSError, ValueError, KeyError):
        return None


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cache", default=default_cache())
    parser.add_argument("--jobs", type=int, default=4)
    parser.add_argument("--pin", action="store_true", help="write fetched npm versions into packages.tsv")
    parser.add_argument("--only", choices=("debian", "npm"))
    args = parser.parse_args(argv)
    os.makedirs(args.cache, exist_ok=True)
    rows = read_packages()

    def needed(row):
        source, package, version = row
        have = fetched_version(args.cache, source, package)
        return have is None or (version != "latest" and have != version)

    todo = [row for row in rows if needed(row) and (args.only is None or row[0] == args.only)]
    print(f"{len(rows)} packages listed, {len(todo)} to fetch into {args.cache}", flush=True)
    failures = []

    def run(row):
        source, package, version = row
        (fetch_debian if source == "debian" else fetch_npm)(args.cache, package, version)
        return row

    # apt-get download shares one lock-free cache per call; npm pack calls are independent.
    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        futures = {pool.submit(run, row): row for row in todo}
        for done, future in enumerate(concurrent.futures.as_completed(futures), 1):
            row = futures[future]
            try:
                future.result()
            except (subprocess.CalledProcessError, RuntimeError, OSError, tarfile.TarError) as error:
                failures.append((row, error))
                print(f"FAILED {row[0]} {row[1]}={row[2]}: {error}", file=sys.stderr, flush=True)
            if done % 50 == 0:
                print(f"{done}/{len(todo)} fetched", flush=True)

    if args.pin:
        # A package the registry does not serve cannot be pinned; it leaves the list.
        pinned, dropped = [], []
        for s, p, v in rows:
            if v == "latest":
                v = fetched_version(args.cache, s, p)
            (pinned if v else dropped).append((s, p, v))
        write_packages(pinned)
        if dropped:
            print(f"not fetched, left out of the list: {' '.join(p for _, p, _ in dropped)}", flush=True)
    print(f"done: {len(todo) - len(failures)} fetched, {len(failures)} failed", flush=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
