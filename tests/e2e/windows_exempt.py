"""The cases that cannot pass under Wine, each with its reason: of the black-box suites, and of the platform suites. Everything else
runs, the black-box suites in both modes and with the trace flag off and on; so does every case named here, by itself, and the
suite fails when it passes.

Rows: suite, what the case's name begins with, reason."""

# Cases that start a second server: under Wine the end of one takes the other's port along, so each of these runs by itself.
ALONE = [
    ('blackbox', 'Pages.test_page_without_clients'),
    ('exact_files', 'FrameBlocks.'),
    ('exact_files', 'ReclaimedFrameBlocks.'),
    ('exact_pages', 'WithoutRoot.test_no_root_no_start'),
]

# Of these, cases of thousands of requests, which take Wine half a minute each: two of the four combinations run them, so
# that each mode and each state of the trace flag is in one.
LONG = [
    ('exact_files', 'FrameBlocks.'),
    ('exact_files', 'ReclaimedFrameBlocks.'),
]

PIECES = ('Wine collects a request before anyone sees it, and drops the connection when a piece comes between its reading and '
          'its asking for more')

# Cases that pass by chance, or wait for as long as they can: left out.
NOT_RUN = [
    ('platform', 'Apc.NoneIsLostAgainstWaits',
     'it wants one wait at least that a queued call interrupts, and Wine often has none'),
    ('blackbox', 'Frames.test_large_frame_in_small_pieces', PIECES),
    ('exact_clients', 'Configuration.test_document_in_many_segments', PIECES),
    ('exact_clients', 'RequestFrame.test_a_leave_whose_rest_never_comes', 'Wine hands over whole requests only'),
]

# Exempt cases whose server does not even start: that is how they fail.
NO_SERVER = [
    ('exact_pages', 'Permissions.'),
]

LINKS = 'to Wine, the links of a Unix file system are what they lead to'

ENTITIES = 'Wine hands over whole requests only, and loses those that do not come at once'
ASCII = 'Wine takes only ASCII in a header'
CASE = 'Wine takes a prefix only as it was registered, to the letter'
CHUNKED = 'Wine takes no chunked requests'
FILES = 'Wine has no responses from file handles'
PATHS = 'Wine hands paths on as they were sent, neither decoded nor resolved'

NARROW = 'the ANSI code page of the test program is not UTF-8, and the C runtime knows no locale'
ZEROS = 'the C runtime fills with zeros though there is a precision'

EXEMPT = [
    ('blackbox', 'Files.test_links_never_leave_the_root', LINKS),
    ('blackbox', 'Frame.test_unregistered_path', 'Wine gives no answer to a path that nobody has registered'),
    ('blackbox', 'Pages.test_status_page_below_a_prefix_in_another_case', CASE),
    ('exact_clients', 'Membership.test_empty_client_description', 'a header without a value stops the HTTP driver of Wine'),
    ('exact_clients', 'Membership.test_ids_in_utf_8', ASCII),
    ('exact_clients', 'Membership.test_id_of_ill_formed_utf_8', ASCII),
    ('exact_clients', 'RequestFrame.test_answers_of_the_interface', 'Wine answers a bad request otherwise, or not at all'),
    ('exact_clients', 'RequestFrame.test_chunked_body', CHUNKED),
    ('exact_clients', 'RequestFrame.test_http_1_0', 'Wine wants a Host header of HTTP/1.0 as well'),
    ('exact_clients', 'RequestFrame.test_id_below_prefixes_in_other_spellings', CASE),
    ('exact_clients', 'Configuration.test_document_types_and_entities_are_refused',
     'the document of Wine takes document types'),
    ('exact_files', 'Frames.test_client_that_goes_away_in_mid_frame', ENTITIES),
    ('exact_files', 'Frames.test_frame_larger_than_all_memory', ENTITIES),
    ('exact_files', 'Frames.test_write_without_content_length', CHUNKED),
    ('exact_files', 'Maintenance.test_erase_gives_the_space_back', ENTITIES),
    ('exact_files', 'OpenCreateClose.test_links_and_pipes', LINKS),
    ('exact_pages', 'Download.test_delete_of_a_file_that_is_being_written',
     'the lock that tells of it is of the Unix file system'),
    ('exact_pages', 'Download.test_delete_of_an_encoded_name', PATHS),
    ('exact_pages', 'Download.test_get_and_types', FILES),
    ('exact_pages', 'Download.test_nothing_from_outside', PATHS),
    ('exact_pages', 'Download.test_paths_inside_that_are_written_otherwise', PATHS),
    ('exact_pages', 'Download.test_get_of_259_characters', FILES),
    ('exact_pages', 'Download.test_segment_of_261_characters', 'Wine has no limit of a segment'),
    ('exact_pages', 'Download.test_what_a_client_recorded', FILES),
    ('exact_pages', 'TextPages.test_http_1_0', 'Wine keeps the connection of an HTTP/1.0 client'),
    ('exact_pages', 'TextPages.test_status_by_other_spellings', CASE),
    ('exact_pages', 'WithoutRoot.test_root_that_goes_away', 'Wine gives a missing folder another error than Windows'),
    ('exact_pages', 'Permissions.', 'Wine runs only as the user whose Windows it is, so not the server of another user'),

    ('strangers', 'Log.', 'Wine ends the connection of a bad request without an answer'),
    ('confinement', 'Names.test_every_link_with_every_command', LINKS),
    ('confinement', 'Names.test_a_name_below_a_file_with_every_command',
     'Wine has one error for all that would use a file as a folder'),
    ('confinement', 'Pages.test_every_target', PATHS),
    ('confinement', 'Swapped.', LINKS),

    # What the layer for Linux refuses is more than what a system must: programs of ours are to notice.
    ('platform', 'Apartment.IsCountedPerThreadAndHasOneModel', 'the system takes flags that the layer for Linux refuses'),
    ('platform', 'CodePage.RefusesBadArguments', 'the system takes a replacement for UTF-8 that the layer for Linux refuses'),
    ('platform', 'XmlDocument.BoundsTheDepth', 'the system has no bound of depth'),
    ('platform', 'XmlDocument.BoundsTheNodes', 'the system has no bound of nodes'),
    ('platform', 'XmlDocument.RefusesWhatIsNotWellFormed', 'the document of Wine takes document types'),
    ('platform', 'Wait.RefusesBadHandles', 'a number that is no handle of the layer may be one of the system'),
    ('platform', 'Wait.MultipleChecksItsArguments', 'Wine takes a handle twice'),
    ('platform', 'Semaphore.CountsAndRefuses', 'Wine takes a release of none'),
    ('platform', 'Apc.MayQueueFurtherCalls', 'Wine has another error for a call of no function'),
    ('platform', 'Calendar.LocalTimeIsTheSystemTimeInTheZone', 'Wine takes times that do not fit'),
    ('platform', 'Calendar.RefusesWhatDoesNotExist', 'Wine takes dates that do not exist'),
    ('platform', 'ComError.HasTheSystemsMessageWithoutItsLineEnd', 'Wine has fewer messages'),
    ('platform', 'CodePage.ReplacesIllFormedText', 'Wine counts an ill-formed sequence as one'),
    ('platform', 'CodePage.ConvertsBothWays', NARROW),
    ('platform', 'Format.Characters', NARROW),
    ('platform', 'Format.NullStringsAndIllFormedText', NARROW),
    ('platform', 'Format.ReadsNoFurtherThanAllowed', NARROW),
    ('platform', 'Format.StringsInANarrowFormat', NARROW),
    ('platform', 'Format.StringsInAWideFormat', NARROW),
    ('platform', 'Format.AgreesWithTheCLibraryOnRandomNumbers', ZEROS),
    ('platform', 'Format.IntegerFlags', ZEROS),
    ('platform', 'Format.Integers', 'the C runtime does not know %hhd'),
    ('platform', 'Format.Floats', 'the C runtime writes exponents with three digits'),
    ('platform', 'Format.UnknownConversionsAreCopied', 'the C runtime leaves out what it does not know'),
    ('platform', 'Format.RefusesToWriteThroughN', 'the C runtime writes through %n'),
    ('platform', 'Format.FitsExactly', 'sprintf_s of the build does not refuse a text without room for its end'),
    ('platform', 'Format.BadArguments', 'swprintf_s of the build takes a null buffer'),
    ('platform', 'Text.Compares', '_strnicmp of the C runtime takes bytes from 0x80 on for signed ones'),
]
