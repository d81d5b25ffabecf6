// Bytes, one a character, that markup, scripts, JSON and terminals might obey.
export const payload =
  '</script><script>window.pwned=1</script><img src=x onerror=window.pwned=1>"\'&amp;`${window.pwned=1}<!--\\u003c\xff\xfe\xc0\x80\x1b[31m\xe2\x80\xa8';
// As it is shown: invalid bytes are U+FFFD.
export const shown = Buffer.from(payload, 'latin1').toString('utf8');
