# Turns the pass phrase of the client key into eight words, so that it does not stand in the binary as
# text. Word i is ((character << 6) | 6 bits of noise) XOR key, and the key grows by 65535 per word.
# Key and noise come from a digest of the pass phrase: the same configuration gives the same binary.
function(orvexd_passphrase_words passphrase out_key out_words)
  string(SHA256 digest "orvexd key words: ${passphrase}")
  string(SUBSTRING "${digest}" 0 8 key_digits)
  math(EXPR key "0x${key_digits}")
  set(running ${key})
  set(words "")
  string(HEX "${passphrase}" characters)
  foreach(index RANGE 7)
    math(EXPR at "${index} * 2")
    string(SUBSTRING "${characters}" ${at} 2 character)
    math(EXPR at "8 + ${index} * 2")
    string(SUBSTRING "${digest}" ${at} 2 noise)
    math(EXPR word "(((0x${character} << 6) | (0x${noise} & 0x3f)) ^ ${running}) & 0xffffffff"
         OUTPUT_FORMAT HEXADECIMAL)
    list(APPEND words "${word}U")
    math(EXPR running "(${running} + 65535) & 0xffffffff")
  endforeach()
  list(JOIN words ", " words)
  set(${out_key} "${key}" PARENT_SCOPE)
  set(${out_words} "${words}" PARENT_SCOPE)
endfunction()
