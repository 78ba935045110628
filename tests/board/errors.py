"""What ends the check with a sentence rather than a trace."""


class Failure(Exception):
    """Something that was to be shown is not so, or a machine does not do what it must."""


class Missing(Exception):
    """This computer cannot do it at all."""


def must(holds, what):
    if not holds:
        raise Failure(what)
