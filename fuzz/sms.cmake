set(sms_pdu sms/codec_7bit.cpp sms/codec_ucs2.cpp sms/hex.cpp sms/pdu.cpp)
tavrik_fuzz(codec ${sms_pdu})
tavrik_fuzz(pdu ${sms_pdu})
tavrik_fuzz(sms_decode ${sms_pdu} sms/alphabet.cpp sms/decode.cpp sms/join.cpp)
