"""The tree as the checks see it: which files there are and which includes which."""
import pathlib
import re

CODE = ("arch", "kernel", "tests", "tools", "bench", "programs")
PROSE = ("docs/**/*.md", "*.md", "cmake/*.cmake", "CMakeLists.txt", "vorn")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


class Tree:
    """All source files below `root`, read once. Paths are relative, with forward slashes."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self._texts = {}
        self.files = sorted(
            path.relative_to(self.root).as_posix()
            for top in CODE
            for path in (self.root / top).rglob("*")
            if path.suffix in (".h", ".cpp", ".S", ".py", ".sh") and "__pycache__" not in path.parts
        )

        self.prose = sorted(path.relative_to(self.root).as_posix()
                            for pattern in PROSE for path in self.root.glob(pattern))
        self._known = set(self.files)

    def text(self, path):
        if path not in self._texts:
            self._texts[path] = (self.root / path).read_text(encoding="utf-8")
        return self._texts[path]

    def select(self, *suffixes, under=""):
        """The files with one of these suffixes in the folders that begin with `under`."""
        return [f for f in self.files if f.endswith(suffixes) and f.startswith(under)]

    def includes(self, path):
        """The files of the tree that `path` includes directly."""
        return [name for name in INCLUDE.findall(self.text(path)) if name in self._known]

    def closure(self, path):
        """`path` and every file of the tree that it includes, directly or not; sorted."""
        seen, todo = set(), [path]
        while todo:
            name = todo.pop()
            if name not in seen:
                seen.add(name)
                todo.extend(self.includes(name))
        return sorted(seen)
