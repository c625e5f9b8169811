"""A C++ source of the library as tokens, each with where it stands: enough of the language to change it."""

import re

TOKEN = re.compile(
    r'(?P<comment>/\*.*?\*/|//[^\n]*)'
    r'|(?P<space>\s+|\\\n)'
    r'|(?P<string>"(?:\\.|[^"\\])*")'
    r"|(?P<char>'(?:\\.|[^'\\])*')"
    r'|(?P<number>(?:0[xX][0-9a-fA-F]+|[0-9]+)[uUlL]*)'
    r'|(?P<name>[A-Za-z_]\w*)'
    r'|(?P<sign><<=|>>=|<=>|->\*|\.\.\.|::|->|\+\+|--|<<|[<>=!+\-*/%&|^]=|&&|\|\||\[\[|\]\]|##|[^\s\w])',
    re.S)
# A shift to the right only: in templates two brackets close side by side.
SHIFT_RIGHT = re.compile(r'(?<= )>>(?= )')
DIRECTIVE = re.compile(r'^[ \t]*#[ \t]*(\w+)(?:\\\n|[^\n])*', re.M)
MACRO_HEAD = re.compile(r'[ \t]*#[ \t]*define[ \t]+(\w+)(\([^)]*\))?')

OPENING = {'(': ')', '[': ']', '{': '}', '[[': ']]'}


class Token:
    """A piece of the text, and the scope that it stands in."""

    def __init__(self, kind, text, begin, macro):
        self.kind, self.text, self.begin, self.end = kind, text, begin, begin + len(text)
        self.macro = macro     # whose definition it stands in
        self.scope = ''        # the function, type or table around it
        self.body = False      # within a function's body
        self.partner = None    # the index of the bracket that belongs to this one
        self.bracket = ''      # the innermost bracket around it
        self.before = self.after = ' '  # the characters beside it

    def spaced(self):
        return self.before.isspace() and self.after.isspace()


class Source:
    def __init__(self, name, text):
        self.name, self.text = name, text
        self.tokens = list(self._tokens())
        self._pair()
        self._skip_what_changes_nothing()
        self._pair()
        self._name_scopes()

    def _tokens(self):
        # The body of a macro is code like any other; its head, and other directives, are not.
        hidden, macros = [], []
        for found in DIRECTIVE.finditer(self.text):
            head = MACRO_HEAD.match(self.text, found.start())
            hidden.append((found.start(), head.end() if head else found.end()))
            if head:
                macros.append((head.end(), found.end(), head.group(1)))
        at = 0
        while at < len(self.text):
            if hidden and at >= hidden[0][0]:
                at = max(at, hidden.pop(0)[1])
                continue
            found = SHIFT_RIGHT.match(self.text, at) or TOKEN.match(self.text, at)
            kind = found.lastgroup or 'sign'
            if kind not in ('comment', 'space'):
                macro = next((name for begin, end, name in macros if begin <= at < end), '')
                token = Token(kind, found.group(), at, macro)
                token.before = self.text[at - 1:at] or ' '
                token.after = self.text[token.end:token.end + 1] or ' '
                yield token
            at = found.end()
            if kind == 'space' and hidden:
                at = min(at, max(hidden[0][0], found.start() + 1))

    def _pair(self):
        open_at = []
        for i, token in enumerate(self.tokens):
            token.bracket = self.tokens[open_at[-1]].text if open_at else ''
            if token.kind != 'sign':
                continue
            if token.text in OPENING:
                open_at.append(i)
            elif token.text in OPENING.values():
                other = open_at.pop()
                if OPENING[self.tokens[other].text] != token.text:
                    raise ValueError(f'{self.name}: brackets do not match at {token.begin}')
                token.partner, self.tokens[other].partner = other, i

    def _skip_what_changes_nothing(self):
        """Static assertions, alignments, attributes but one, and the language of an asm or extern."""
        kept, i = [], 0
        while i < len(self.tokens):
            token = self.tokens[i]
            if token.text in ('static_assert', 'alignas', '__attribute__'):
                i = self.tokens[i + 1].partner + 1
            elif token.text == '[[' and self.tokens[i + 1].text != 'fallthrough':
                i = token.partner + 1
            else:
                kept.append(token)
                i += 1
        self.tokens = kept

    def _name_scopes(self):
        stack, head = [], []  # of (what, name); the tokens since the last boundary
        for i, token in enumerate(self.tokens):
            if token.macro:
                token.scope, token.body = token.macro, True
                continue
            what = stack[-1][0] if stack else 'namespace'
            token.scope = '::'.join(n for _, n in stack if n) or self._declared(i)
            token.body = any(w == 'function' for w, _ in stack)
            if token.text == '{':
                stack.append(self._opened(head, what))
            elif token.text == '}':
                stack.pop()
            if token.text in ('{', '}', ';'):
                head = []
            else:
                head.append(token)

    def _declared(self, i):
        """What the declaration around a token outside of all braces declares."""
        def ends(token):
            return token.macro or token.text in (';', '}', '{')

        begin, end = i, i
        while begin > 0 and not ends(self.tokens[begin - 1]):
            begin -= 1
        while end < len(self.tokens) and not ends(self.tokens[end]):
            end += 1
        return self._name_in(self.tokens[begin:end])

    @staticmethod
    def _name_in(head):
        """The name that a declaration's head declares: before its arguments, its value or its end."""
        texts = [token.text for token in head]
        for word in ('class', 'struct', 'union', 'enum'):
            if word in texts[:-1] and texts[0] != 'template' and '(' not in texts:
                found = head[texts.index(word) + 1]
                return found.text if found.kind == 'name' else ''
        name, depth = '', 0
        for k, token in enumerate(head):
            if token.text == '<' and not token.spaced():
                depth += 1
            elif token.text == '<' and texts[k - 1] == 'template':
                depth += 1
            elif token.text == '>' and not token.before.isspace() and depth > 0:
                depth -= 1
            elif depth == 0 and token.text == 'operator':
                return 'operator ' + texts[k + 1]
            elif depth == 0 and token.kind == 'name':
                begin = k
                while begin > 0 and (texts[begin - 1] in ('::', '~') or texts[begin] == '::'):
                    begin -= 1
                name = ''.join(texts[begin:k + 1])
                if texts[k + 1:k + 2] and texts[k + 1] in ('(', '=', '['):
                    return name
        return name

    def _opened(self, head, around):
        texts = [token.text for token in head]
        if around in ('function', 'block'):
            return ('block', '')
        if 'namespace' in texts:
            return ('namespace', '')
        name = self._name_in(head)
        if '=' in texts or around == 'value':
            return ('value', name if around != 'value' else '')
        if '(' in texts:
            return ('function', name)
        return ('type', name)
