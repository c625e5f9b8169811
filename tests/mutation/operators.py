"""The mutants of a source: each one small change that the library's tests should notice."""

import re

COMPARISONS = {'==': ['!='], '!=': ['=='], '<': ['<=', '>'], '<=': ['<'], '>': ['>='], '>=': ['>', '<=']}
LOGIC = {'&&': '||', '||': '&&'}
ARITHMETIC = {'+': '-', '-': '+', '*': '/', '/': '*', '%': '/',
              '+=': '-=', '-=': '+=', '++': '--', '--': '++'}
BITS = {'&': '|', '|': '&', '&=': '|=', '|=': '&=', '<<': '>>', '>>': '<<'}
TYPES = {'int32_t': 'uint32_t', 'uint64_t': 'uint32_t'}

# Names that stand for each other: families by prefix, the others one by one.
FAMILIES = ('L2VPN_AC_MSG_', 'L2VPN_MSTP_MSG_', 'L2VPN_AC_FLAG_', 'L2VPN_MSTP_FLAG_', 'L2VPN_AC_STATUS_',
            'L2VPN_AC_ST_', 'L2VPN_AC_TRACE_', 'L2VPN_AC_RECORD_', 'L2VPN_AC_RETRY_', 'L2VPN_IPC_EVT_',
            'WAVL_', 'max_')
SIBLINGS = {
    'true': 'false', 'false': 'true', 'api_lock': 'cb_lock', 'cb_lock': 'api_lock',
    'EOK': 'EINVAL', 'EINVAL': 'ENOENT', 'ENOENT': 'EINVAL', 'ENOMEM': 'EINVAL', 'EEXIST': 'EINVAL',
    'EDEADLK': 'EINVAL', 'EBUSY': 'EDEADLK',
    'u16': 'u32', 'u32': 'u16', 'u64': 'u32',
    'L2VPN_AC_INFO_HEAD': 'L2VPN_AC_DATA_HEAD', 'L2VPN_AC_DATA_HEAD': 'L2VPN_AC_IFH_LEN',
    'L2VPN_AC_IFH_LEN': 'L2VPN_AC_HDR_LEN', 'L2VPN_AC_HDR_LEN': 'L2VPN_AC_DATA_HEAD',
}
# Members and enumerators: only where they are named as such.
MEMBERS = {
    'start': 'end', 'end': 'start', 'start_first_only': 'end_last_only', 'end_last_only': 'start_first_only',
    'has_defns': 'has_infos', 'has_infos': 'has_defns', 'flags': 'bulk', 'bulk': 'flags',
    'nothing': 'header_without_flags', 'header_without_flags': 'header_with_flags',
    'header_with_flags': 'header_without_flags', 'registration': 'tree_node', 'tree_node': 'timer',
    'timer': 'context', 'failed_text': 'empty_failed_text', 'empty_failed_text': 'failed_text',
    'prov_cb': 'unprov_cb', 'unprov_cb': 'prov_cb', 'bulk_notify_cb': 'hdr_notify_cb',
    'hdr_notify_cb': 'bulk_notify_cb', 'info_size': 'data_size', 'data_size': 'info_size',
}

CONTROL = ('if', 'for', 'while', 'switch', 'do', 'else', 'case', 'default', 'break', 'continue')
NOT_CALLED = ('if', 'for', 'while', 'switch', 'sizeof', 'alignof', 'return', 'static_cast', 'decltype')


class Mutant:
    def __init__(self, source, operator, first, last, replacement):
        self.file = source.name
        self.operator = operator
        begin, end = source.tokens[first].begin, source.tokens[last].end
        self.original = source.text[begin:end]
        # Lines stay where they are: what reports its line must not tell mutants apart.
        missing = self.original.count('\n') - replacement.count('\n')
        self.text = source.text[:begin] + replacement + '\n' * max(missing, 0) + source.text[end:]
        self.line = source.text.count('\n', 0, begin) + 1
        self.changed = f'{short(self.original)} -> {short(replacement) or "(nothing)"}'
        self.id = f'{source.name} {source.tokens[first].scope or "(file)"}: {operator}: {self.changed}'


def short(text):
    text = ' '.join(text.split())
    return text if len(text) <= 90 else text[:87] + '...'


def mutants_of(source, names):
    """All mutants of a source, in the order of its text; `names` are those of all sources."""
    found = []
    for i in range(len(source.tokens)):
        for operator, first, last, replacement in at_token(source, i, names):
            found.append(Mutant(source, operator, first, last, replacement))
    ordinal = {}
    for mutant in found:
        ordinal[mutant.id] = ordinal.get(mutant.id, 0) + 1
        if ordinal[mutant.id] > 1:
            mutant.id += f' #{ordinal[mutant.id]}'
    return found


def at_token(source, i, names):
    token = source.tokens[i]
    if token.kind == 'number':
        yield from number(i, token)
    elif token.kind == 'string':
        yield ('text', i, i, token.text[:-1] + '~"')
    elif token.kind == 'name':
        yield from name(source, i, names)
        yield from condition(source, i)
        yield from step(source, i)
    elif token.kind == 'sign':
        yield from sign(source, i)
        yield from arguments(source, i)
        yield from row(source, i)
    if token.body:
        yield from statement(source, i)


def number(i, token):
    digits = re.match(r'0[xX][0-9a-fA-F]+|[0-9]+', token.text).group()
    suffix = token.text[len(digits):]
    value = int(digits, 0)
    for other in (value + 1, value - 1):
        if other >= 0:
            yield ('constant', i, i, (hex(other) if digits[:2] in ('0x', '0X') else str(other)) + suffix)


def neighbour(source, i, step_):
    return source.tokens[i + step_] if 0 <= i + step_ < len(source.tokens) else None


def name(source, i, names):
    token = source.tokens[i]
    before, after = neighbour(source, i, -1), neighbour(source, i, 1)
    text, behind = token.text, before.text if before else ''
    designated = behind == '.' and after is not None and after.text == '=' and not token.body
    if designated:
        return
    used = token.body or behind in ('.', '::', '->', '*')
    for family in FAMILIES:
        if text.startswith(family) and (used or (family != 'max_' and not (after and after.text == '='))):
            members = sorted(n for n in names if n.startswith(family) and n != 'L2VPN_AC_MSG_TYPE_MAX')
            others = [n for n in members if n != text]
            if others:
                yield ('sibling', i, i, members[(members.index(text) + 1) % len(members)]
                       if text in members else others[0])
    if text in SIBLINGS and not (text in ('u16', 'u32', 'u64') and behind == 'l2vpn_ac_step'):
        if not (after and after.text == '=' and not token.body):
            yield ('sibling', i, i, SIBLINGS[text])
    if text in MEMBERS and behind in ('.', '->', '::'):
        yield ('sibling', i, i, MEMBERS[text])
    if text in TYPES and token.body:
        yield ('type', i, i, TYPES[text])


def condition(source, i):
    token = source.tokens[i]
    if token.text not in ('if', 'while') or source.tokens[i + 1].text != '(':
        return
    begin, end = i + 2, source.tokens[i + 1].partner - 1
    text = source.text[source.tokens[begin].begin:source.tokens[end].end]
    if source.tokens[begin].text not in ('true', 'false'):
        declares = re.match(r'[\w:]+ [*&]*(const )?\w+ = ', text)
        # A single comparison is turned round as such already.
        single = re.fullmatch(r'[^&|?]*[^&|?=!<>](==|!=)[^&|?=!<>]*', text)
        if not declares and not single:
            yield ('negation', begin, end, f'!({text})')


def sign(source, i):
    token = source.tokens[i]
    text = token.text
    if token.spaced() or (text in ('+', '-', '*', '/', '&&', '||') and token.after == '\n'):
        for other in COMPARISONS.get(text, []):
            yield ('comparison', i, i, other)
        if text in LOGIC:
            yield ('logic', i, i, LOGIC[text])
        if text in ARITHMETIC:
            yield ('arithmetic', i, i, ARITHMETIC[text])
        if text in BITS:
            yield ('bits', i, i, BITS[text])
        if text == '?':
            yield from ternary(source, i)
    elif text in ('++', '--'):
        yield ('arithmetic', i, i, ARITHMETIC[text])
    if text in ('!', '~') and not token.after.isspace() and source.tokens[i - 1].text != '::' and token.body:
        if not (text == '~' and source.tokens[i - 1].text in (';', '{', '}')):
            yield ('negation' if text == '!' else 'bits', i, i, '')


def ternary(source, i):
    begin = i
    while begin > 0:
        before = source.tokens[begin - 1]
        if before.text in (')', ']', '}') and before.partner is not None:
            begin = before.partner
        elif before.text in ('=', 'return', '(', ',', '{', ';', '[', '?', ':') or before.text.endswith('='):
            if before.text not in ('==', '!=', '<=', '>='):
                break
            begin -= 1
        else:
            begin -= 1
    text = source.text[source.tokens[begin].begin:source.tokens[i - 1].end]
    yield ('negation', begin, i - 1, f'!({text})')


def elements(source, i):
    """The elements between a bracket and its partner: of each the first and the last token."""
    end = source.tokens[i].partner
    result, begin, k = [], i + 1, i + 1
    while k <= end:
        token = source.tokens[k]
        if k == end or token.text == ',':
            result.append((begin, k - 1))
            begin = k + 1
        elif token.text == ';':
            return []
        elif token.text in ('(', '[', '{', '[['):
            k = token.partner
        k += 1
    return [] if any(last < first for first, last in result) else result


def arguments(source, i):
    token = source.tokens[i]
    if i == 0 or token.partner is None or token.partner < i:
        return
    before = source.tokens[i - 1]
    call = token.text == '(' and token.body and (before.kind == 'name' or before.text in ('>', ')'))
    call = call and before.text not in NOT_CALLED
    values = token.text == '{' and (token.body or token.scope)
    if not call and not values:
        return
    parts = elements(source, i)
    if any(source.tokens[first].text == '.' for first, _ in parts):
        return
    for (a, b), (c, d) in zip(parts, parts[1:]):
        one = source.text[source.tokens[a].begin:source.tokens[b].end]
        two = source.text[source.tokens[c].begin:source.tokens[d].end]
        between = source.text[source.tokens[b].end:source.tokens[c].begin]
        if one != two:
            yield ('swap', a, d, two + between + one)


def step(source, i):
    """A conversion step taken out of its program."""
    token = source.tokens[i]
    if token.text not in ('u16', 'u32', 'u64') or source.tokens[i + 1].text != '(' or token.body:
        return
    end = source.tokens[i + 1].partner
    if source.tokens[i - 1].text == ',':
        yield ('step', i - 1, end, '')
    elif source.tokens[i - 1].text == '<':
        yield ('step', i, end + (source.tokens[end + 1].text == ','), '')


def row(source, i):
    """A row taken out of a table."""
    token = source.tokens[i]
    if token.text == '{' and not token.body and i > 0 and source.tokens[i - 1].text in ('{', ','):
        if token.partner and source.tokens[token.partner + 1].text == ',':
            yield ('row', i, token.partner + 1, '')


def statement(source, i):
    token, before = source.tokens[i], source.tokens[i - 1]
    if token.text in ('{', ';') or token.bracket == '(':
        return
    guarded = before.text == ')' and source.tokens[before.partner - 1].text in ('if', 'for', 'while')
    begins = before.text in ('{', '}', ';', 'else') or before.text == ':' and follows_case(source, i)
    if not begins and not guarded:
        return
    if token.text == '[[' and source.tokens[i + 1].text == 'fallthrough':
        yield ('fallthrough', i, token.partner, 'break')
        return
    end = i
    while source.tokens[end].text != ';':
        if source.tokens[end].text in ('}', ')', ']'):
            return
        end = (source.tokens[end].partner or end) + 1
        if end >= len(source.tokens):
            return
    if token.text == 'return':
        value = source.text[source.tokens[i + 1].begin:source.tokens[end - 1].end]
        if end > i + 1 and value not in ('EOK', 'false', 'nullptr', '0'):
            yield ('result', i, end, 'return {};')
        if guarded:
            yield ('statement', i, end, ';')
    elif token.text == 'break' or token.text not in CONTROL and not declaration(source, i, end):
        yield ('statement', i, end, ';')


def follows_case(source, i):
    k = i - 1
    while k > 0 and source.tokens[k].text not in (';', '{', '}', '?'):
        if source.tokens[k].text in ('case', 'default'):
            return True
        k -= 1
    return False


def declaration(source, i, end):
    """A declaration that others count on; one that is there for its effects, as a lock is, is none."""
    texts = [source.tokens[k].text for k in range(i, end)]
    if texts[0] in ('static', 'constexpr', 'using', 'auto', 'struct', 'typename', 'goto'):
        return True
    head = source.text[source.tokens[i].begin:source.tokens[end].begin]
    if not re.match(r'(const )?[\w:]+(<[^;()]*>)? [*&]*(const )?\w+\b', head):
        return False
    return '=' in texts or texts[-1] != ')' and texts[0] != 'const'
