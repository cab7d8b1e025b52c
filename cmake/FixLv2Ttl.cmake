# Corrects the Turtle that JUCE 7.0.5 generates for the LV2 bundle, so that it validates
# against the LV2 vocabularies. Run after JUCE's juce_lv2_helper: cmake -DBUNDLE=<.lv2> -P ...
#  - switches: toggles of patch parameters are atom:Bool values (lv2:portProperty is for ports);
#    JUCE's wrapper reads Bool atoms and JUCE's and other hosts draw them as toggles;
#  - the plug-in is also a doap:Project (the domain of doap:maintainer and doap:release) and an
#    equaliser; its empty mailbox pointed at dsp.ttl itself;
#  - the UI lists ui:noUserResize as extension data and opts:interface as a feature, the wrong
#    way round;
#  - the one preset's "Program" property was never declared.

function (quenda_fix_file file)
    file (READ "${BUNDLE}/${file}" text)
    set (original "${text}")

    if (file STREQUAL "dsp.ttl")
        string (REGEX REPLACE
            "rdfs:range atom:Float ;([^.]*)\tlv2:portProperty lv2:enumeration , lv2:toggled ;\n"
            "rdfs:range atom:Bool ;\\1" text "${text}")
        string (REPLACE "\ta lv2:Plugin ;\n" "\ta lv2:Plugin , lv2:EQPlugin , doap:Project ;\n" text "${text}")
        string (REPLACE "\t\tfoaf:mbox <> ;\n" "" text "${text}")
    elseif (file STREQUAL "ui.ttl")
        string (REPLACE "\t\tui:noUserResize ,\n\t\tui:resize ;" "\t\tui:resize ;" text "${text}")
        string (REPLACE "\t\tui:noUserResize ,\n\t\topts:interface ,\n\t\topts:options ;"
                        "\t\tui:noUserResize ,\n\t\topts:options ;" text "${text}")
    elseif (file STREQUAL "manifest.ttl" AND NOT text MATCHES "rdf:Property")
        string (REGEX MATCH "<([^>]*:Program)>" program "${text}")
        if (program)
            string (APPEND text "${program}\n\ta <http://www.w3.org/1999/02/22-rdf-syntax-ns#Property> ;\n"
                                "\trdfs:label \"program\" .\n")
        endif()
    endif()

    if (NOT text STREQUAL original)
        file (WRITE "${BUNDLE}/${file}" "${text}")
    endif()
endfunction()

foreach (file dsp.ttl ui.ttl manifest.ttl)
    quenda_fix_file (${file})
endforeach()
