"""The cases of the black-box suite that cannot pass under Wine, each with its reason. Everything else runs; so does every
case named here, by itself, and the suite fails when it passes.

Rows: suite, what the case's name begins with, reason."""

LINKS = 'to Wine, the links of a Unix file system are what they lead to'

EXEMPT = [
    ('blackbox', 'Files.test_links_never_leave_the_root', LINKS),
    ('blackbox', 'Frame.test_unregistered_path', 'Wine gives no answer to a path that nobody has registered'),
]
