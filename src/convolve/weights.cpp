// filled in by the next commits
