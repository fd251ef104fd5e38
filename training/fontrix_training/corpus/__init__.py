"""The font corpus: the pinned packages and their fetch, the manifest of faces, their style
classes and the family splits (the files themselves are in training/corpus/)."""
