
averyveryverylongname
ä„€€d€şÿÿ0